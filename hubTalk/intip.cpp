#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "startup.h"
#include "text.h"

void get_intip(char* buf, size_t size) {
    snprintf(buf, size, "%s", "127.0.0.1");
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    int seen = 0;
    for (struct ifaddrs* ifa = list; ifa; ifa = ifa->ifa_next) {
        if (!ifa->ifa_addr || ifa->ifa_addr->sa_family != AF_INET) continue;
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &reinterpret_cast<struct sockaddr_in*>(ifa->ifa_addr)->sin_addr, text, sizeof text);
        if (strcmp(text, "127.0.0.1") == 0) continue;
        if (seen == 0)
            snprintf(buf, size, "%s", text);
        else if (seen < 4)
            appendf(buf, size, ",%s", text);
        ++seen;
    }
    freeifaddrs(list);
}
