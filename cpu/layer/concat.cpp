#include "cpu/layer/concat.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace TarnoCPU {
namespace {

// Copies `count` elements; what lies behind the end of the bottom reads as 0, what would land
// behind the end of the top is dropped. Bottoms need not fit each other in a damaged model.
void copy_run(const Mat& bottom, int64_t from, Mat& top, int64_t to, int64_t count) {
    const int64_t element = top.shape.elem_size;
    const int64_t top_bytes = top.shape.total() * element;
    const int64_t bottom_bytes = bottom.empty() ? 0 : bottom.shape.total() * bottom.shape.elem_size;
    const int64_t writable = std::min(count * element, top_bytes - to * element);
    if (writable <= 0) return;
    const int64_t readable =
        std::max<int64_t>(0, std::min(writable, bottom_bytes - from * element));
    unsigned char* target = top.ptr<unsigned char>() + to * element;
    if (readable > 0) {
        std::memcpy(target, bottom.ptr<unsigned char>() + from * element,
                    static_cast<size_t>(readable));
    }
    std::memset(target + readable, 0, static_cast<size_t>(writable - readable));
}

}  // namespace

int Concat::forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops, const Option& opt) {
    if (bottoms.empty() || tops.empty()) return 0;
    const TensorShape& first = bottoms[0].shape;
    const int dims = first.dims();

    // The joined tensor as [outer][joined axis][inner]: outer and inner come from the first bottom,
    // each bottom adds its own extent of the joined axis.
    enum { channels, rows, columns, none } joined = none;
    if (dims == 1) joined = columns;
    if (dims == 2) joined = axis == 0 ? rows : axis == 1 ? columns : none;
    if (dims == 3) joined = axis == 0 ? channels : axis == 1 ? rows : axis == 2 ? columns : none;
    if (joined == none) return 0;

    const auto extent = [joined](const TensorShape& shape) -> int64_t {
        return joined == channels ? shape.c : joined == rows ? shape.h : shape.w;
    };
    int64_t sum = 0;
    for (const Mat& bottom : bottoms) {
        // A bottom of nothing adds nothing; negative sizes belong to no tensor.
        if (bottom.shape.dims() != 0) {
            sum += extent(bottom.shape);
        } else if (bottom.shape.total() != 0) {
            return -100;
        }
    }
    if (sum <= 0 || sum > INT_MAX) return -100;

    TensorShape shape(first.layout, first.c, first.h, first.w, first.elem_size);
    (joined == channels ? shape.c : joined == rows ? shape.h : shape.w) = static_cast<int>(sum);
    Mat& top = tops[0];
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;

    const int64_t outer = joined == channels ? 1
                          : joined == rows   ? first.c
                                             : static_cast<int64_t>(first.c) * first.h;
    int64_t to = 0;
    for (int64_t o = 0; o < outer; ++o) {
        for (const Mat& bottom : bottoms) {
            const TensorShape& part = bottom.shape;
            const int64_t run = bottom.shape.dims() == 0 ? 0
                                : joined == channels     ? part.total()
                                : joined == rows         ? static_cast<int64_t>(part.h) * part.w
                                                         : part.w;
            copy_run(bottom, o * run, top, to, run);
            to += run;
        }
    }
    return 0;
}

}  // namespace TarnoCPU
