// Feeds the reader of tensor files. It stops when a refusal is no one line, or when a tensor was
// read that has not as many values as its shape says, or not in its type's storage.
#include <modelkit/onnx/reader.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <variant>
#include <vector>

using namespace modelkit::onnx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int descriptor = memfd_create("tensor", 0);
    static const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
    if (ftruncate(descriptor, 0) != 0 ||
        pwrite(descriptor, data, size, 0) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    Tensor tensor;
    const modelkit::Status read = read_tensor(name, tensor);
    for (const char letter : read.message()) {
        if (static_cast<unsigned char>(letter) < 32) std::abort();
    }
    if (!read) return 0;
    if (element_count(tensor.dims) != static_cast<int64_t>(tensor.size())) std::abort();
    const bool integers = std::holds_alternative<std::vector<int64_t>>(tensor.values);
    if (integers != is_integral(tensor.type)) std::abort();
    double sum = 0;
    for (size_t i = 0; i < tensor.size(); ++i) sum += tensor.number(i);
    if (tensor.size() == 0 && sum != 0) std::abort();
    return 0;
}
