#include "trace_file.h"

#if defined(_WIN32)
#include <cstring>
#include <fstream>
#endif

namespace Tarno {

#if defined(_WIN32)
void trace_floats(const char* path, const void* data, int count) {
    std::ofstream file(path);
    if (!file) return;
    for (int i = 0; i < count; ++i) {
        float value;
        std::memcpy(&value, static_cast<const char*>(data) + sizeof(value) * i, sizeof(value));
        file << value << '\n';
    }
}
#else
void trace_floats(const char*, const void*, int) {}
#endif

}  // namespace Tarno
