// Small things that every operator class needs.
#pragma once

#include <cstdint>
#include <new>
#include <vector>

#include "cpu/mat.h"
#include "cpu/operator.h"
#include "platform/assertion.h"

/// First statement of every `forward`: ends it with -100, after the assertion, when the check does
/// not hold. The second form has another spelling of the text, which some classes carry.
#define TN_FORWARD_PRECONDITIONS(holds)                           \
    do {                                                          \
        if (!(holds)) {                                           \
            TN_ASSERT(false && "Invalid forward pre-conditions"); \
            return -100;                                          \
        }                                                         \
    } while (false)
#define TN_FORWARD_PRECONDITIONS_NO_HYPHEN(holds)                 \
    do {                                                          \
        if (!(holds)) {                                           \
            TN_ASSERT(false && "Invalid forward pre conditions"); \
            return -100;                                          \
        }                                                         \
    } while (false)

/// The exported factory of an operator class, in the unit of the class.
#define TN_DEFINE_OPERATOR_CREATOR(ClassName)         \
    TN_API Operator* ClassName##_operator_creator() { \
        return new (std::nothrow) ClassName;          \
    }

namespace TarnoCPU {

/// Whether a bottom is a float tensor in a layout of which element operators need not know more.
inline bool is_float_of_any_layout(const TensorShape& shape) {
    return shape.elem_size == 4 &&
           (shape.layout == TensorShape::CHW || shape.layout == TensorShape::C4HW4 ||
            shape.layout == TensorShape::C8HW8);
}

inline bool is_float_chw(const TensorShape& shape) {
    return shape.elem_size == 4 && shape.layout == TensorShape::CHW;
}

/// `array` when it holds at least `count` floats, else a copy with zeros behind it: a kernel whose
/// bottom has more channels than its weights were made for reads zeros there, not foreign memory.
/// Empty when there is no memory, and when more than 2^22 floats are missing.
Mat extended_with_zeros(const Mat& array, int64_t count);

/// Whether a caller handed in one block as bottom and top.
inline bool is_same_block(const Mat& bottom, const Mat& top) {
    return top.data != nullptr && top.data == bottom.data;
}

/// `forward` with a block of its own for `top`, where it reads and writes at once.
template <typename Kernel>
int forward_apart(Kernel& kernel, const Mat& bottom, Mat& top, const Option& opt) {
    const Mat source = bottom;  // `bottom` may be the same object as `top`
    top.release();
    return kernel.forward(source, top, opt);
}

/// The shapes of `bottoms`, for the check of an operator of several bottoms. Storage of the calling
/// thread, overwritten by its next call: a run takes nothing from the heap once it is warm.
const std::vector<TensorShape>& shapes_of(const std::vector<Mat>& bottoms);

}  // namespace TarnoCPU
