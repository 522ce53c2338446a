#include "cpu/operator_x86/upsampling_bilinear_x2.h"

#include <emmintrin.h>

namespace TarnoCPU {
namespace {

constexpr int64_t lanes = 4;

// The way through the gaps between the inputs of a row or a column.
class Gaps {
public:
    Gaps(int64_t count, bool align_corners) {
        if (align_corners) {
            step = static_cast<float>(static_cast<double>(count - 1) /
                                      static_cast<double>(2 * count - 1));
            position = step;
        }
    }
    /// Of the two outputs in this gap, how far they are on the way to the next input.
    float first() const { return position - static_cast<float>(static_cast<int64_t>(position)); }
    float second() const { return first() + step; }
    void next() { position += 2.0f * step; }

private:
    float step = 0.5f;
    float position = 0.25f;
};

// (1 - t) * a + t * b
struct Mix {
    __m128 of_a;
    __m128 of_b;

    explicit Mix(float t) : of_a(_mm_set1_ps(1.0f - t)), of_b(_mm_set1_ps(t)) {}
    __m128 operator()(__m128 a, __m128 b) const {
        return _mm_add_ps(_mm_mul_ps(of_a, a), _mm_mul_ps(of_b, b));
    }
};

// The first and the last row of top lie on a row of bottom.
void fill_edge_row(const float* row, int64_t n, bool align_corners, float* out) {
    Gaps gaps(n, align_corners);
    __m128 left = _mm_loadu_ps(row);
    _mm_storeu_ps(out, left);
    out += lanes;
    for (int64_t i = 1; i < n; ++i, out += 2 * lanes, gaps.next()) {
        const __m128 right = _mm_loadu_ps(row + i * lanes);
        _mm_storeu_ps(out, Mix(gaps.first())(left, right));
        _mm_storeu_ps(out + lanes, Mix(gaps.second())(left, right));
        left = right;
    }
    _mm_storeu_ps(out, left);
}

// The two rows of top between two rows of bottom.
void fill_two_rows(const float* upper, const float* lower, int64_t n, bool align_corners,
                   const Mix& first_row, const Mix& second_row, float* out) {
    Gaps gaps(n, align_corners);
    float* first_out = out;
    float* second_out = out + 2 * n * lanes;
    __m128 first_left = first_row(_mm_loadu_ps(upper), _mm_loadu_ps(lower));
    __m128 second_left = second_row(_mm_loadu_ps(upper), _mm_loadu_ps(lower));
    _mm_storeu_ps(first_out, first_left);
    _mm_storeu_ps(second_out, second_left);
    first_out += lanes;
    second_out += lanes;
    for (int64_t i = 1; i < n; ++i, gaps.next()) {
        const __m128 above = _mm_loadu_ps(upper + i * lanes);
        const __m128 below = _mm_loadu_ps(lower + i * lanes);
        const __m128 first_right = first_row(above, below);
        const __m128 second_right = second_row(above, below);
        const Mix first_column(gaps.first()), second_column(gaps.second());
        _mm_storeu_ps(first_out, first_column(first_left, first_right));
        _mm_storeu_ps(first_out + lanes, second_column(first_left, first_right));
        _mm_storeu_ps(second_out, first_column(second_left, second_right));
        _mm_storeu_ps(second_out + lanes, second_column(second_left, second_right));
        first_out += 2 * lanes;
        second_out += 2 * lanes;
        first_left = first_right;
        second_left = second_right;
    }
    _mm_storeu_ps(first_out, first_left);
    _mm_storeu_ps(second_out, second_left);
}

}  // namespace

void upsampling_bilinear_x2(const float* bottom, int64_t m, int64_t n, bool align_corners,
                            float* top) {
    const int64_t row = n * lanes;
    fill_edge_row(bottom, n, align_corners, top);
    float* out = top + 2 * row;
    Gaps gaps(m, align_corners);
    for (int64_t j = 0; j + 1 < m; ++j, out += 4 * row, gaps.next()) {
        fill_two_rows(bottom + j * row, bottom + (j + 1) * row, n, align_corners, Mix(gaps.first()),
                      Mix(gaps.second()), out);
    }
    fill_edge_row(bottom + (m - 1) * row, n, align_corners, out);
}

}  // namespace TarnoCPU
