#include "tricks.h"

#include <cstdarg>
#include <cstdio>
#include <new>

#include "crossplatform/src/common/src/half_float.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"
#include "platform/tn_core.h"

namespace tesk {

Tricks::~Tricks() = default;

void Tricks::release(void* p) {
    if (p != nullptr) operator delete(p);
}

void Tricks::setup(ZQLayerInfo*) {}

void Tricks::compute(std::vector<std::shared_ptr<tesk::Image>>&, tesk::Image*) {}

void Tricks::compute(tesk::Image*, tesk::Image*) {}

void Tricks::print() {}

bool Tricks::useProgram(const std::shared_ptr<tesk::ComputeProgram>& program) {
    if (program != nullptr && program->isLinked()) {
        program->use();
        return true;
    }
    // Why was an error line when the layer was set up; this comes with each frame.
    Tarno::_LogVerbose("Tarno", "layer: expected a program that links, found none; not dispatched");
    return false;
}

/// A factor of a damaged file may be no number, or beyond what an int holds: no size then.
static int pixels(double size) {
    return size > -1e9 && size < 1e9 ? static_cast<int>(size) : 0;
}

Extent roundedExtent(const shape3& shape, const ComputeProgramManager& manager) {
    const auto rounded = [](int net, unsigned short factor) {
        const float product = static_cast<float>(net) * Tarno::half_to_float(factor);
        return pixels(static_cast<double>(product) + 0.5);
    };
    return {rounded(manager.netWidth, shape.scale_x), rounded(manager.netHeight, shape.scale_y)};
}

Extent truncatedExtent(const shape3& shape, const ComputeProgramManager& manager) {
    const auto truncated = [](int net, unsigned short factor) {
        return pixels(static_cast<float>(net) * Tarno::half_to_float(factor));
    };
    return {truncated(manager.netWidth, shape.scale_x), truncated(manager.netHeight, shape.scale_y)};
}

void chooseLocalSize(int& x, int& y, int& z, const ComputeProgramManager*) {
    // No search: neither the limits of the driver nor the tuning words have a say.
    x = 8;
    y = 8;
    z = 1;
}

std::string formatSource(const char* format, ...) {
    std::vector<char> text(sourceBufferBytes);
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return text.data();
}

}  // namespace tesk
