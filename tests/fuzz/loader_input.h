// How the bytes of a fuzzer's input make a model file, so that they are spent on messages and not
// on a header of 1000 bytes: the first byte says whether the layers are sorted (bit 0) and whether
// the rest is a whole file (bit 1); otherwise the second byte selects the version of a sound
// header, and the rest is the message stream.
#pragma once

#include <cstddef>

namespace loader_input {

constexpr unsigned char SORTED = 1;
constexpr unsigned char WHOLE_FILE = 2;

/// Each of the versions at which the format changed, the one before, and one far above.
constexpr unsigned int VERSIONS[] = {10000, 10001, 10002, 10003, 10006, 10007,
                                     10008, 10009, 10010, 10011, 20000, 9999};
constexpr size_t VERSION_COUNT = sizeof(VERSIONS) / sizeof(VERSIONS[0]);

}  // namespace loader_input
