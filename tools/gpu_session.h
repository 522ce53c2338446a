// A GL context with what nets need beside it.
#pragma once

#include <tarno/gpu.h>

#include <string>

#include "gpu_rules.h"
#include "library_reports.h"

namespace tool {

/// One context for the length of its life, current on the thread that made it.
class GpuSession {
public:
    /// Throws CommandError when there is no context with OpenGL 4.3.
    GpuSession(const GpuOptions& options, LibraryReports& reports);
    ~GpuSession();
    GpuSession(const GpuSession&) = delete;
    GpuSession& operator=(const GpuSession&) = delete;

    /// GL's own words: renderer and version.
    std::string device() const;

private:
    /// Goes last.
    struct Context {
        unsigned int id = 0;
        ~Context();
    };
    Context context;

public:
    tesk::TexturePool pool;
    tesk::ComputeProgramManager manager;
};

}  // namespace tool
