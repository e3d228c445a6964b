// Loading and looking up a large provider list, in the 3-field and the
// 5-field layout, with many shared last names (numbered keys).
// Usage: bench_codeTables [providers]   (default 50000)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "emr/codeTables.h"
#include "testUtil.h"

namespace {

double seconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Provider {
    std::string first, last, code;
};

}  // namespace

int main(int argc, char** argv) {
    int count = argc > 1 ? atoi(argv[1]) : 50000;
    if (count <= 0) count = 50000;
    // One last name in ten is shared by ten providers: long runs of numbered keys.
    std::vector<Provider> providers;
    for (int i = 0; i < count; ++i)
        providers.push_back({"first" + std::to_string(i), "last" + std::to_string(i % 10 ? i : i / 10 % 100),
                             "C" + std::to_string(i)});
    TempDir dir;
    std::string three, five;
    for (const Provider& p : providers) {
        three += p.last + "," + p.first + " x," + p.code + "\n";
        five += "id,dept," + p.first + " " + p.last + "," + p.code + "," + p.last + "\n";
    }
    struct Layout {
        const char* name;
        const std::string& text;
        int fields, code, key, first, nameColumn;
    } layouts[] = {{"3 fields", three, 3, 2, 0, 1, -1}, {"5 fields", five, 5, 3, 4, -1, 2}};

    for (const Layout& l : layouts) {
        std::string path = dir.file(l.name[0] == '3' ? "three.csv" : "five.csv");
        spit(path, l.text);
        auto t = std::chrono::steady_clock::now();
        int rc = loadCodes(path.c_str(), l.fields, l.code, l.key, l.first, -1, l.nameColumn, ',');
        double load = seconds(t);
        t = std::chrono::steady_clock::now();
        size_t found = 0;
        const int rounds = 4;
        for (int r = 0; r < rounds; ++r)
            for (const Provider& p : providers)
                found += getShortCode(p.first.c_str(), "", p.last.c_str()) == p.code;
        double look = seconds(t);
        printf("%-8s %d providers (%zu bytes): load %.3f s (rc %d); %.0f lookups/s, %zu of %zu found\n", l.name,
               count, l.text.size(), load, rc, rounds * count / look, found, rounds * providers.size());
    }
    return 0;
}
