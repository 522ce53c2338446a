// The members of the 3x3 family as the tests know them, and a walk over their flat blocks in
// double.
#pragma once

#include <ostream>

#include "support/blocked_convolutions.h"
#include "support/matrix_convolutions.h"

namespace testing_support {

/// One class: its blocking and what it checks.
struct Member3x3 {
    enum class Input {
        Planes,  ///< reads planes
        Fours,   ///< reads four channels side by side, from a scratch of its own
        Blocks,  ///< tensors in `C4HW4`
    };
    const char* name;
    int stride;
    int outputs, rows, columns;  ///< the tile of one step
    Input input;
    bool needs_outputs_in_fours;
    bool needs_even;
    bool top_left_border = false;  ///< by the parity of the size, not by the padding
    bool fused = false;

    bool lanes_of_input() const { return input != Input::Planes; }
    bool runs_here() const {
        return !fused || machine_has(TarnoCPU::OperatorInfo::InstructionSet::FMA);
    }
};

inline void PrintTo(const Member3x3& member, std::ostream* out) {
    *out << member.name;
}

inline const Member3x3 members_3x3[] = {
    {"Convolution_3x3s1_Float_SSE_M1", 1, 1, 4, 4, Member3x3::Input::Planes, false, false},
    {"Convolution_3x3s1_Float_SSE_M2", 1, 4, 4, 4, Member3x3::Input::Planes, true, true},
    {"Convolution_3x3s1_Float_SSE_M3", 1, 1, 8, 8, Member3x3::Input::Planes, false, false},
    {"Convolution_3x3s1_Float_SSE_M4", 1, 4, 4, 4, Member3x3::Input::Planes, false, false},
    {"Convolution_3x3s1_Float_SSE_M5", 1, 1, 2, 4, Member3x3::Input::Fours, true, true},
    {"Convolution_3x3s1_Float_SSE_M6", 1, 1, 1, 1, Member3x3::Input::Fours, true, false},
    {"Convolution_3x3s1_Float_SSE_M7", 1, 4, 1, 1, Member3x3::Input::Fours, true, false},
    {"Convolution_3x3s1_Float_SSE_M8", 1, 4, 2, 2, Member3x3::Input::Fours, true, true},
    {"Convolution_3x3s1_Float_SSE_M9", 1, 1, 2, 2, Member3x3::Input::Fours, true, false},
    {"Convolution_3x3s1_Float_SSE_M10", 1, 1, 1, 4, Member3x3::Input::Planes, false, false},
    {"Convolution_3x3s1_Float_SSE_C4HW4_M1", 1, 4, 1, 1, Member3x3::Input::Blocks, false, false},
    {"Convolution_3x3s2_Float_SSE_M1", 2, 1, 1, 4, Member3x3::Input::Planes, false, false, true},
    {"Convolution_3x3s2_Float_SSE_M2", 2, 1, 4, 4, Member3x3::Input::Planes, false, false, true},
    {"Convolution_3x3s2_Float_SSE_M3", 2, 1, 4, 4, Member3x3::Input::Fours, true, true},
    {"Convolution_3x3s2_Float_SSE_M4", 2, 1, 1, 4, Member3x3::Input::Planes, false, false, false,
     true},
    {"Convolution_3x3s2_Float_SSE_M5", 2, 1, 2, 4, Member3x3::Input::Planes, false, false, false,
     true},
    {"Convolution_3x3s2_Float_SSE_M6", 2, 1, 4, 4, Member3x3::Input::Fours, true, true, false,
     true},
    {"Convolution_3x3s2_Float_SSE_C4HW4_M1", 2, 4, 1, 1, Member3x3::Input::Blocks, false, false},
};

inline std::vector<Member3x3> members_3x3_where(bool (*wanted)(const Member3x3& member)) {
    std::vector<Member3x3> members;
    for (const Member3x3& member : members_3x3) {
        if (wanted(member)) members.push_back(member);
    }
    return members;
}

/// Base of the fixtures: leaves out what the machine can't run, and says so.
class Test3x3 : public testing::TestWithParam<Member3x3> {
protected:
    void SetUp() override {
        if (!GetParam().runs_here()) GTEST_SKIP() << "this machine has no FMA";
    }
};

inline std::string name_of_3x3(const testing::TestParamInfo<Member3x3>& info) {
    return info.param.name;
}

inline const Member3x3& member_3x3(const std::string& name) {
    for (const Member3x3& member : members_3x3) {
        if (name == member.name) return member;
    }
    ADD_FAILURE() << "no member " << name;
    return members_3x3[0];
}

inline ConvolutionProblem problem_3x3(const Member3x3& member, int in, int out, int h, int w,
                                      int pad_h, int pad_w, unsigned int seed) {
    ConvolutionProblem p;
    p.in = in;
    p.out = out;
    p.h = h;
    p.w = w;
    p.kernel_h = p.kernel_w = 3;
    p.stride_h = p.stride_w = member.stride;
    p.pad_h = pad_h;
    p.pad_w = pad_w;
    p.has_bias = true;
    p.fill(seed);
    return p;
}

struct Margins3x3 {
    int top, bottom, left, right;
};

inline Margins3x3 margins_of(const Member3x3& member, const ConvolutionProblem& p) {
    if (member.top_left_border) return {p.h % 2 == 0 ? 1 : 0, 0, p.w % 2 == 0 ? 1 : 0, 0};
    return {p.pad_h, p.pad_h, p.pad_w, p.pad_w};
}

inline int out_height(const Member3x3& member, const ConvolutionProblem& p) {
    return member.stride == 2 ? p.h / 2 : p.h - (p.pad_h == 0 ? 2 : 0);
}
inline int out_width(const Member3x3& member, const ConvolutionProblem& p) {
    return member.stride == 2 ? p.w / 2 : p.w - (p.pad_w == 0 ? 2 : 0);
}

/// The bottom as the member takes it: a block that ends with the last number. Channels behind the
/// last four have no place in `C4HW4`.
struct Bottom3x3 {
    std::vector<float> data;
    TarnoCPU::TensorShape shape;

    Bottom3x3(const Member3x3& member, const ConvolutionProblem& p)
        : data(p.bottom), shape(chw(p.in, p.h, p.w)) {
        if (member.input != Member3x3::Input::Blocks) return;
        shape = c4hw4(p.in, p.h, p.w);
        data.resize(static_cast<size_t>(shape.total()));
        data = to_blocks(data, shape.c * 4, p.h, p.w);
    }
    TarnoCPU::Mat view() { return TarnoCPU::Mat(shape, data.data(), nullptr); }
};

/// The numbers of top plane by plane.
inline std::vector<float> planes_of_top(const TarnoCPU::Mat& top) {
    const TarnoCPU::TensorShape& shape = top.shape;
    if (shape.layout != TarnoCPU::TensorShape::C4HW4) return values_of(top);
    return to_planes(values_of(top), shape.c * 4, shape.h, shape.w / 4);
}

/// `sums` are c planes of h rows of w pixels.
inline void expect_top(const std::vector<ExactSum>& sums, int c, int h, int w,
                       const Member3x3& member, const TarnoCPU::Mat& top) {
    ASSERT_EQ(member.input == Member3x3::Input::Blocks ? c4hw4(c, h, w) : chw(c, h, w), top.shape);
    expect_sums(sums, planes_of_top(top));
}

/// One run with blocks of NaN behind every allocation.
inline TarnoCPU::Mat run_3x3(const Member3x3& member, const ConvolutionProblem& p,
                             PoisoningAllocator& blobs, PoisoningAllocator& workspace) {
    TarnoCPU::Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    Bottom3x3 bottom(member, p);
    TarnoCPU::Mat top;
    EXPECT_EQ(0, loaded_operator(member.name, p)->forward(bottom.view(), top, opt));
    EXPECT_EQ(0, workspace.alive);
    return top;
}

inline std::vector<ExactSum> sums_on_paper(const Member3x3& member, const ConvolutionProblem& p) {
    const Margins3x3 margins = margins_of(member, p);
    const ExactTensor exact = convolution_on_paper(p, out_height(member, p), out_width(member, p),
                                                   margins.top, margins.left);
    std::vector<ExactSum> sums;
    for (size_t i = 0; i < exact.value.size(); ++i)
        sums.push_back({exact.value[i], exact.magnitude[i], exact.terms});
    return sums;
}

/// What the convolution is on paper, with zeros around bottom.
inline void expect_on_paper(const Member3x3& member, const ConvolutionProblem& p) {
    PoisoningAllocator blobs, workspace;
    const TarnoCPU::Mat top = run_3x3(member, p, blobs, workspace);
    expect_top(sums_on_paper(member, p), p.out, out_height(member, p), out_width(member, p), member,
               top);
}

/// The walk of the member over flat blocks, whatever the shape: a tile is read as a whole, added to
/// and written as a whole, in memory order; 0 is read and nothing written outside a block. The
/// tiles of an output channel (or of as many as a step has) follow the filling of their channels
/// with the bias. `memory` is top's block.
struct FlatWalk {
    std::vector<ExactSum> memory;
    int c, h, w;

    FlatWalk(const Member3x3& member, const ConvolutionProblem& p)
        : c(member.input == Member3x3::Input::Blocks ? p.out / 4 * 4 : p.out),
          h(out_height(member, p)),
          w(out_width(member, p)) {
        memory.resize(static_cast<size_t>(c) * h * w);
        const Margins3x3 m = margins_of(member, p);
        const FlatPlanes planes = with_border(planes_of(p), m.top, m.bottom, m.left, m.right);
        const int depth = member.lanes_of_input() ? 4 : 1;
        const int groups = p.in / depth;
        // The input as it lies in memory.
        std::vector<double> input(static_cast<size_t>(groups) * depth * planes.h * planes.w);
        const size_t pixels = static_cast<size_t>(planes.h) * planes.w;
        for (size_t i = 0; i < input.size(); ++i) {
            const size_t group = i / (pixels * depth);
            input[i] = planes.data[(group * depth + i % depth) * pixels + i / depth % pixels];
        }
        for (int first = 0; first < c; first += member.outputs) {
            for (int o = first; o < first + member.outputs && o < c; ++o) {
                for (int64_t i = 0; i < int64_t{h} * w; ++i) {
                    const double b = p.bias.empty() ? 0.0 : p.bias[static_cast<size_t>(o)];
                    memory[static_cast<size_t>(int64_t{o} * h * w + i)] = {b, std::abs(b), 1};
                }
            }
            for (int g = 0; g < groups; ++g) {
                for (int y = 0; y < h; y += member.rows) {
                    for (int x = 0; x < w; x += member.columns)
                        step(member, p, input, planes, depth, g, first, y, x);
                }
            }
        }
    }

private:
    template <typename Body>
    void for_tile(const Member3x3& member, int first, int y, int x, const Body& body) const {
        for (int o = first; o < first + member.outputs; ++o) {
            for (int i = y; i < y + member.rows; ++i) {
                for (int j = x; j < x + member.columns; ++j)
                    body(o, i, j, (int64_t{o} * h + i) * w + j);
            }
        }
    }

    void step(const Member3x3& member, const ConvolutionProblem& p,
              const std::vector<double>& input, const FlatPlanes& planes, int depth, int g,
              int first, int y, int x) {
        std::vector<ExactSum> tile;
        for_tile(member, first, y, x, [&](int o, int i, int j, int64_t place) {
            ExactSum sum;
            if (place < static_cast<int64_t>(memory.size()))
                sum = memory[static_cast<size_t>(place)];
            for (int tap = 0; tap < 9; ++tap) {
                const int64_t row = int64_t{i} * member.stride + tap / 3;
                const int64_t column = int64_t{j} * member.stride + tap % 3;
                for (int lane = 0; lane < depth; ++lane) {
                    const size_t in = static_cast<size_t>(
                        ((int64_t{g} * planes.h + row) * planes.w + column) * depth + lane);
                    const size_t weight =
                        (static_cast<size_t>(o) * p.in + g * depth + lane) * 9 + tap;
                    const double term = (in < input.size() ? input[in] : 0.0) *
                                        (weight < p.weights.size() ? p.weights[weight] : 0.0);
                    sum.add(term);
                }
            }
            tile.push_back(sum);
        });
        size_t next = 0;
        for_tile(member, first, y, x, [&](int, int, int, int64_t place) {
            if (place < static_cast<int64_t>(memory.size()))
                memory[static_cast<size_t>(place)] = tile[next];
            ++next;
        });
    }
};

/// The result of the flat walk, which for shapes that the tile divides is the convolution on paper.
inline void expect_on_flat_blocks(const Member3x3& member, const ConvolutionProblem& p) {
    PoisoningAllocator blobs, workspace;
    const TarnoCPU::Mat top = run_3x3(member, p, blobs, workspace);
    const FlatWalk walk(member, p);
    expect_top(walk.memory, walk.c, walk.h, walk.w, member, top);
}

}  // namespace testing_support
