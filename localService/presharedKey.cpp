#include "presharedKey.h"

#include "util.h"

std::string presharedKey(const std::string& id, const std::string& displayName) {
    std::string name = displayName;
    if (!name.empty() && name[0] == '~') {
        const char* plain = Util::decrypt(name.c_str());
        name = plain ? plain : "";
    }
    std::string joined = id + "_" + name;
    const char* key = Util::encrypt(joined.c_str());
    return key ? std::string(key) : std::string();
}

std::string wrongPresharedKey(const std::string& id, const std::string& displayName) {
    return presharedKey(id, displayName + "#not-this-box");
}
