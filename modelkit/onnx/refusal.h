// How the parts of the converter stop: thrown inside, one line at the outside.
#pragma once

#include <string>

namespace modelkit::onnx {

/// What was expected and what was found; the node is added by who knows it.
struct Refusal {
    std::string text;
};

[[noreturn]] inline void refuse(const std::string& text) {
    throw Refusal{text};
}

inline void require(bool holds, const std::string& text) {
    if (!holds) refuse(text);
}

}  // namespace modelkit::onnx
