// IEEE 754 binary16 numbers, the form of all weights and factors in a model file. They are held as
// their 16-bit patterns.
#pragma once

#include <cstddef>

#include "../../../../platform/export.h"

namespace Tarno {

/// The float's bit pattern of the same value. Exact for all 65,536 patterns: denormals keep their
/// value, infinities and the payload of a NaN stay.
TN_API unsigned int half_to_float_bits(unsigned short half);

/// The same as a number. A signalling NaN may come out quiet where floats are returned in x87
/// registers; the array form below never touches it.
TN_API float half_to_float(unsigned short half);

/// The nearest half; of two equally near ones the one with an even last bit. Values of 65520 and
/// above become infinite, values of 2^-25 and below become zero, both with their sign. A NaN keeps
/// the upper ten bits of its payload; where these are all zero it becomes 0x7e00 with its sign.
TN_API unsigned short float_to_half(float value);

/// `count` numbers at once; the arrays do not overlap.
TN_API void halves_to_floats(const unsigned short* halves, float* floats, size_t count);
TN_API void floats_to_halves(const float* floats, unsigned short* halves, size_t count);

}  // namespace Tarno
