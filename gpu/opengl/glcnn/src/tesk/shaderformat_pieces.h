// Pieces that the convolution sources share. They are formats where they hold a '%'.
#pragma once

#include <string>
#include <vector>

#include "tricks/tricks_params.h"

namespace tesk {
namespace shader {

/// Where a tap reads, from the position of the kernel's centre.
struct Tap {
    int x;
    int y;
};

/// Columns x0 to x1, rows y0 to y1, x fastest, scaled.
std::vector<Tap> taps(int x0, int x1, int y0, int y1, int scaleX = 1, int scaleY = 1);

/// Version and local size; takes three numbers.
extern const char* const header;
std::string inputDeclaration(int inChannels);
std::string outputDeclaration(int outChannels);
/// Weights and biases in a storage buffer or a uniform block; takes one number.
std::string bufferDeclaration(const TricksParams& params);
/// `unpack2Mat` and the output transform of Winograd F(2x2, 3x3).
extern const char* const prelude;

/// (kernel >> 1) - pad / dilation: puts the position on the kernel's centre tap.
int centreOffset(int kernel, int pad, int dilation);

/// "vec4 data[n];" and one fetch for each tap.
std::string fetches(const std::vector<Tap>& taps);
/// The same in the spelling of the kernels whose offsets never change.
std::string literalFetches(const std::vector<Tap>& taps);

/// What an activation code does to one `vec4`.
std::string activation(int code);
/// The same line by line for several accumulators, for the codes 2, 3, 4, 7 and 8.
std::string activationLines(int code, const std::vector<std::string>& accumulators);

std::string line(const char* format, ...);

}  // namespace shader
}  // namespace tesk
