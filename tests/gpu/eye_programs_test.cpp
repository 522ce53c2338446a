// The programs that take the eyes' landmarks out of a face's, refine them and put them back.

#include <array>

#include "support/tensor_programs.h"

namespace {

using namespace testing_support;

constexpr unsigned int seed = 40215;

using Point = std::array<double, 2>;

/// Point `i` of those that begin with `first_slice`, two to a slice.
Point point(const Tensor& face, int first_slice, int i) {
    const int channel = 4 * first_slice + 2 * i;
    return {face.at(channel, 0, 0), face.at(channel + 1, 0, 0)};
}

void set_point(Tensor& face, int first_slice, int i, const Point& value) {
    const int channel = 4 * first_slice + 2 * i;
    face.at(channel, 0, 0) = value[0];
    face.at(channel + 1, 0, 0) = value[1];
}

Point middle(const Point& a, const Point& b) {
    return {(a[0] + b[0]) / 2, (a[1] + b[1]) / 2};
}

class EyeProgramTest : public TensorProgramTest {
protected:
    EyeProgramTest() : TensorProgramTest(seed) {}
};

TEST_F(EyeProgramTest, EyePointsAreSlices17To19And20To22) {
    const Tensor face = random_halves(4 * 33, 1, 1, seed);
    const auto src = upload(face);
    // One group does it; more of them, as for other one-pixel tensors, change nothing.
    for (const unsigned int groups : {1u, 3u}) {
        const auto left = make_output(12, 1, 1);
        const auto right = make_output(12, 1, 1);
        const auto program = use_program("get_left_right_eyes_points_program");
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindImage(1, GL_WRITE_ONLY, *left);
        program->bindImage(2, GL_WRITE_ONLY, *right);
        program->compute(1, 1, groups);
        const Tensor got_left = read_back(*left), got_right = read_back(*right);
        for (int c = 0; c < 12; ++c) {
            EXPECT_EQ(got_left.at(c, 0, 0), face.at(4 * 17 + c, 0, 0)) << c;
            EXPECT_EQ(got_right.at(c, 0, 0), face.at(4 * 20 + c, 0, 0)) << c;
        }
    }
}

TEST_F(EyeProgramTest, SixPointsOfEachEyeBecomeEight) {
    const Tensor face = random_halves(4 * 33, 1, 1, seed);
    const auto src = upload(face);
    const auto dst = make_output(4 * 43, 1, 1);
    const auto program = use_program("processEye_program");
    program->bindImage(0, GL_READ_ONLY, *src);
    program->bindImage(1, GL_WRITE_ONLY, *dst);
    program->compute(1, 1, 1);

    std::array<Point, 6> left, right;
    for (int i = 0; i < 6; ++i) {
        left[static_cast<size_t>(i)] = point(face, 17, i);
        right[static_cast<size_t>(i)] = point(face, 20, i);
    }
    const Point left_eight[] = {left[0], middle(left[0], left[1]), left[1], left[2],
                                left[3], middle(left[3], left[4]), left[4], left[5]};
    const Point right_eight[] = {right[0], right[1], right[2], middle(right[2], right[3]),
                                 right[3], right[4], right[5], middle(right[5], right[0])};
    Tensor want(4 * 43, 1, 1, untouched);
    for (int i = 0; i < 8; ++i) {
        set_point(want, 33, i, left_eight[i]);
        set_point(want, 37, i, right_eight[i]);
    }
    expect_texture(read_back(*dst), want);
}

TEST_F(EyeProgramTest, RefinedEyesGoInBetweenTheSlicesOfTheFace) {
    const Tensor face = random_halves(4 * 50, 1, 1, seed);
    const Tensor left = random_halves(16, 1, 1, seed + 1);
    const Tensor right = random_halves(16, 1, 1, seed + 2);
    const auto src_left = upload(left);
    const auto src_right = upload(right);
    const auto src_main = upload(face);
    const auto dst = make_output(4 * 58, 1, 1);
    const auto program = use_program("merge_left_right_eyes_to_main_program");
    program->bindImage(0, GL_READ_ONLY, *src_left);
    program->bindImage(1, GL_READ_ONLY, *src_right);
    program->bindImage(2, GL_READ_ONLY, *src_main);
    program->bindImage(3, GL_WRITE_ONLY, *dst);
    program->compute(1, 1, 60);
    const Tensor got = read_back(*dst);
    for (int slice = 0; slice < 58; ++slice) {
        for (int c = 0; c < 4; ++c) {
            double want;
            if (slice <= 32) {
                want = face.at(4 * slice + c, 0, 0);
            } else if (slice <= 36) {
                want = left.at(4 * (slice - 33) + c, 0, 0);
            } else if (slice <= 40) {
                want = right.at(4 * (slice - 37) + c, 0, 0);
            } else {
                want = face.at(4 * (slice - 8) + c, 0, 0);
            }
            EXPECT_EQ(got.at(4 * slice + c, 0, 0), want) << "slice " << slice << ", " << c;
        }
    }
}

}  // namespace
