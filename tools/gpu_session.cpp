#include "gpu_session.h"

#include <GL/glew.h>

#include "errors.h"

namespace tool {
namespace {

const char* gl_text(GLenum name) {
    const GLubyte* text = glGetString(name);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "unknown";
}

}  // namespace

GpuSession::Context::~Context() {
    if (id != 0) tesk_UnInit(id);
}

GpuSession::GpuSession(const GpuOptions& options, LibraryReports& reports)
    : pool(0), manager(0, "tarno") {
    reports.forget_error();
    const _TN_Result result = tesk_Init(&context.id);
    if (result == TN_Result_GLVersionTooLow) {
        throw CommandError("GPU engine: expected OpenGL 4.3 or newer, found " +
                           std::string(gl_text(GL_VERSION)));
    }
    if (result != TN_Result_Success) {
        throw CommandError("GPU engine: expected a context with OpenGL 4.3, found none" +
                           (reports.error().empty() ? "" : " (" + reports.error() + ")"));
    }
    manager.initOpenglParameters();
    manager.tricksMode = options.tricks_mode;
    manager.uboSliceLimit = options.ubo_slice_limit;
}

GpuSession::~GpuSession() {
    manager.release();
    pool.release();
}

std::string GpuSession::device() const {
    return std::string(gl_text(GL_RENDERER)) + ", OpenGL " + gl_text(GL_VERSION);
}

}  // namespace tool
