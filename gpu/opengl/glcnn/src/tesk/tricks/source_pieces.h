// Pieces of source text that the generators of short programs share. Each ends its last line.
#pragma once

#include <string>

#include "tricks_params.h"

namespace tesk {

/// The version and the local size.
std::string sourceHead(const TricksParams& params);

/// The sampler `name` of a tensor.
std::string samplerLine(int channels, const char* name);

/// The image that is written, of a tensor of so many channels.
std::string outputLine(int channels, int binding);

/// Text of a program of the catalogue; empty when there is none of that name.
std::string catalogueSource(const char* name);

}  // namespace tesk
