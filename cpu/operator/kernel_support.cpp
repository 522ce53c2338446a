#include "cpu/operator/kernel_support.h"

#include <climits>
#include <cstring>

namespace TarnoCPU {

Mat extended_with_zeros(const Mat& array, int64_t count) {
    if (array.shape.total() >= count) return array;
    // A few missing rows are a model's business; a matrix that is mostly missing is a damaged
    // one's.
    constexpr int64_t most_missing = int64_t{1} << 22;
    if (count > INT_MAX || count - array.shape.total() > most_missing) return Mat();
    Mat extended(TensorShape(TensorShape::FLAT, 1, 1, static_cast<int>(count), 4), nullptr);
    if (extended.empty()) return extended;
    std::memset(extended.data, 0, static_cast<size_t>(count) * sizeof(float));
    if (!array.empty()) {
        std::memcpy(extended.data, array.data,
                    static_cast<size_t>(array.shape.total()) * sizeof(float));
    }
    return extended;
}

const std::vector<TensorShape>& shapes_of(const std::vector<Mat>& bottoms) {
    thread_local std::vector<TensorShape> shapes;
    shapes.clear();
    for (const Mat& bottom : bottoms) shapes.push_back(bottom.shape);
    return shapes;
}

}  // namespace TarnoCPU
