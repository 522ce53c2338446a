#include "machine.h"

#include <cpuid.h>

#include <cstring>

namespace tool {

std::string machine_name() {
    // The brand string: 48 characters in three leaves.
    unsigned int words[12] = {};
    unsigned int highest = 0, unused = 0;
    if (__get_cpuid(0x80000000u, &highest, &unused, &unused, &unused) == 0 ||
        highest < 0x80000004u) {
        return "unknown processor";
    }
    for (unsigned int leaf = 0; leaf < 3; ++leaf) {
        __get_cpuid(0x80000002u + leaf, &words[leaf * 4], &words[leaf * 4 + 1],
                    &words[leaf * 4 + 2], &words[leaf * 4 + 3]);
    }
    char text[49] = {};
    std::memcpy(text, words, 48);
    std::string name(text);
    while (!name.empty() && name.back() == ' ') name.pop_back();
    while (!name.empty() && name.front() == ' ') name.erase(0, 1);
    return name.empty() ? "unknown processor" : name;
}

}  // namespace tool
