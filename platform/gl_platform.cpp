#include "gl_platform.h"

namespace Tarno {
namespace {

GLPlatform* installed = nullptr;

}  // namespace

GLPlatform::~GLPlatform() = default;

std::vector<DisplayTrial> GLPlatform::displayTrials() const {
    return {};
}

GLPlatform& CurrentGLPlatform() {
    return installed != nullptr ? *installed : SystemGLPlatform();
}

void SetGLPlatform(GLPlatform* platform) {
    installed = platform;
}

}  // namespace Tarno
