#include "crossplatform/src/common/src/half_float.h"

#include <cstring>

namespace Tarno {
namespace {

constexpr unsigned int float_infinity = 0x7f800000u;
// The exponents of the two formats count from -127 and from -15.
constexpr unsigned int exponent_shift = (127u - 15u) << 23;

// `value >> shift`, the rest rounded to nearest, ties to even. `shift` is 1 to 31.
unsigned int shift_rounding_to_even(unsigned int value, unsigned int shift) {
    const unsigned int kept = value >> shift;
    const unsigned int rest = value & ((1u << shift) - 1u);
    const unsigned int tie = 1u << (shift - 1u);
    return kept + ((rest > tie || (rest == tie && (kept & 1u) != 0u)) ? 1u : 0u);
}

unsigned short float_bits_to_half(unsigned int bits) {
    const unsigned int sign = (bits >> 16) & 0x8000u;
    const unsigned int magnitude = bits & 0x7fffffffu;
    unsigned int half = 0;
    if (magnitude > float_infinity) {
        const unsigned int payload = (magnitude >> 13) & 0x3ffu;
        half = 0x7c00u | (payload != 0u ? payload : 0x200u);
    } else if (magnitude >= 0x477ff000u) {  // 65520, half way between the largest half and 65536
        half = 0x7c00u;
    } else if (magnitude >= 0x38800000u) {  // 2^-14, the smallest normal half
        // A mantissa that rounds up to the next power of two carries into the exponent.
        half = shift_rounding_to_even(magnitude - exponent_shift, 13u);
    } else if (magnitude > 0x33000000u) {  // 2^-25, half of the smallest denormal half
        const unsigned int exponent = magnitude >> 23;
        const unsigned int mantissa = (magnitude & 0x7fffffu) | 0x800000u;
        half = shift_rounding_to_even(mantissa, 126u - exponent);
    }
    return static_cast<unsigned short>(sign | half);
}

// Apart from the exported function, which a shared library may not inline into its loops.
unsigned int widened(unsigned short half) {
    const unsigned int sign = (half & 0x8000u) << 16;
    const unsigned int exponent = (half >> 10) & 0x1fu;
    const unsigned int mantissa = half & 0x3ffu;
    if (exponent == 31u) return sign | float_infinity | (mantissa << 13);
    if (exponent != 0u) return sign | ((exponent << 23) + exponent_shift) | (mantissa << 13);
    // Zero or a denormal: a count of 2^-24, which a float holds exactly.
    const float value = static_cast<float>(mantissa) * 0x1p-24f;
    unsigned int bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return sign | bits;
}

}  // namespace

unsigned int half_to_float_bits(unsigned short half) {
    return widened(half);
}

float half_to_float(unsigned short half) {
    const unsigned int bits = widened(half);
    float value = 0.0f;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

unsigned short float_to_half(float value) {
    unsigned int bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return float_bits_to_half(bits);
}

void halves_to_floats(const unsigned short* halves, float* floats, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const unsigned int bits = widened(halves[i]);
        std::memcpy(&floats[i], &bits, sizeof(bits));
    }
}

void floats_to_halves(const float* floats, unsigned short* halves, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        unsigned int bits = 0;
        std::memcpy(&bits, &floats[i], sizeof(bits));
        halves[i] = float_bits_to_half(bits);
    }
}

}  // namespace Tarno
