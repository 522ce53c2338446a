// Random tensors, poisoned outputs and double copies for the kernel tests.
#pragma once

#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace testing_support {

/// Uniform floats from -1 to 1 of a seed that the failing test prints (SCOPED_TRACE(seed)).
inline std::vector<float> random_floats(size_t count, unsigned int seed, float low = -1.0f,
                                        float high = 1.0f) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> distribution(low, high);
    std::vector<float> values(count);
    for (float& value : values)
        value = distribution(engine);
    return values;
}

/// A `CHW` tensor of random floats.
inline TarnoCPU::Mat random_tensor(int c, int h, int w, unsigned int seed, float low = -1.0f,
                                   float high = 1.0f) {
    const auto values = random_floats(static_cast<size_t>(c) * h * w, seed, low, high);
    return TarnoCPU::Mat::from_float_array(values.data(), w, h, c, TarnoCPU::TensorShape::CHW,
                                           nullptr);
}

inline std::vector<float> values_of(const TarnoCPU::Mat& mat) {
    const bool has_values = mat.data != nullptr && mat.shape.total() > 0;
    const size_t count = has_values ? static_cast<size_t>(mat.shape.total()) : 0;
    std::vector<float> values(count);
    if (count != 0) std::memcpy(values.data(), mat.data, count * sizeof(float));
    return values;
}

/// Hands out blocks that are filled with NaN and exactly as large as asked for, on the general
/// heap, so that AddressSanitizer sees the first byte beyond one, and counts what is alive.
class PoisoningAllocator : public TarnoCPU::Allocator {
public:
    int alive = 0;
    int calls = 0;
    bool fail = false;  ///< answer every request with null

    void* fastMalloc(unsigned int size) override {
        ++calls;
        if (fail) return nullptr;
        void* block = nullptr;
        if (posix_memalign(&block, 16, size) != 0) return nullptr;
        std::memset(block, 0xff, size);
        ++alive;
        return block;
    }
    void fastFree(void* ptr) override {
        if (ptr == nullptr) return;
        --alive;
        std::free(ptr);
    }
};

inline TarnoCPU::TensorShape chw(int c, int h, int w) {
    return TarnoCPU::TensorShape(TarnoCPU::TensorShape::CHW, c, h, w, 4);
}

/// An operator of the registry by name, as its base.
template <typename Base = TarnoCPU::OperatorSISO>
std::unique_ptr<Base> make_operator(const char* name) {
    const TarnoCPU::OperatorInfo* info = TarnoCPU::find_operator(name);
    if (info == nullptr) {
        ADD_FAILURE() << "no operator " << name;
        return nullptr;
    }
    TarnoCPU::Operator* made = info->creator();
    Base* cast = dynamic_cast<Base*>(made);
    if (cast == nullptr) {
        ADD_FAILURE() << name << " has another base";
        delete made;
    }
    return std::unique_ptr<Base>(cast);
}

/// Bound on |computed - exact| for a float sum of `terms` products and a bias in any order,
/// `magnitude` being the sum of their absolute values: each product is rounded once and passes
/// through at most `terms` + 1 additions, so gamma_n = n u / (1 - n u) with n = terms + 2 and
/// u = 2^-24.
inline double sum_error_bound(int64_t terms, double magnitude) {
    const double u = std::ldexp(1.0, -24);
    const double n = static_cast<double>(terms) + 2.0;
    return n * u / (1.0 - n * u) * magnitude;
}

}  // namespace testing_support
