#include "gpu_info_command.h"

#include <GL/glew.h>

#include <cstdio>
#include <memory>
#include <string>

#include "gpu_session.h"
#include "library_reports.h"
#include "platform/gl_platform.h"
#include "text_table.h"

namespace tool {
namespace {

void print_displays() {
    TextTable table;
    table.column("display", TextTable::left);
    table.column("outcome", TextTable::left);
    for (const Tarno::DisplayTrial& trial : Tarno::CurrentGLPlatform().displayTrials())
        table.row({trial.display, trial.outcome});
    std::fputs(table.text().c_str(), stdout);
}

const char* gl_text(GLenum name) {
    const GLubyte* const text = glGetString(name);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "unknown";
}

std::string limit(GLenum name) {
    GLint value = 0;
    glGetIntegerv(name, &value);
    return std::to_string(value);
}

std::string limits(GLenum name) {
    std::string text;
    for (GLuint i = 0; i < 3; ++i) {
        GLint value = 0;
        glGetIntegeri_v(name, i, &value);
        text += (i == 0 ? "" : " x ") + std::to_string(value);
    }
    return text;
}

}  // namespace

void gpu_info(const GpuInfoCommand& command) {
    LibraryReports reports(command.verbose);
    // Whatever comes of it, the ways that were tried are of use.
    struct Displays {
        ~Displays() { print_displays(); }
    };
    std::unique_ptr<GpuSession> session;
    {
        const Displays displays;
        session = std::make_unique<GpuSession>(GpuOptions(), reports);
    }
    TextTable table;
    table.column("driver", TextTable::left);
    table.column("says", TextTable::left);
    table.row({"vendor", gl_text(GL_VENDOR)});
    table.row({"renderer", gl_text(GL_RENDERER)});
    table.row({"version", gl_text(GL_VERSION)});
    table.row({"GLSL", gl_text(GL_SHADING_LANGUAGE_VERSION)});
    table.row({"work group, invocations", limit(GL_MAX_COMPUTE_WORK_GROUP_INVOCATIONS)});
    table.row({"work group, size", limits(GL_MAX_COMPUTE_WORK_GROUP_SIZE)});
    table.row({"work groups", limits(GL_MAX_COMPUTE_WORK_GROUP_COUNT)});
    table.row({"shared memory, bytes", limit(GL_MAX_COMPUTE_SHARED_MEMORY_SIZE)});
    table.row({"uniform block, bytes", limit(GL_MAX_UNIFORM_BLOCK_SIZE)});
    table.row({"uniform buffer bindings", limit(GL_MAX_UNIFORM_BUFFER_BINDINGS)});
    table.row({"uniform buffer offsets, bytes", limit(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT)});
    table.row({"storage block, bytes", limit(GL_MAX_SHADER_STORAGE_BLOCK_SIZE)});
    table.row({"texture, texels a side", limit(GL_MAX_TEXTURE_SIZE)});
    table.row({"texture array, layers", limit(GL_MAX_ARRAY_TEXTURE_LAYERS)});
    table.row({"image units", limit(GL_MAX_IMAGE_UNITS)});
    std::fputs(("\n" + table.text()).c_str(), stdout);
}

}  // namespace tool
