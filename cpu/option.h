// Run-time settings of one inference run.
#pragma once

#include "../platform/export.h"
#include "allocator.h"

namespace TarnoCPU {

struct TN_API Option {
    bool lightmode = true;                     ///< release a blob when all its readers have run
    int num_threads = 1;                       ///< stored and handed on; no kernel starts a thread
    Allocator* blob_allocator = nullptr;       ///< for tensors that outlive a layer
    Allocator* workspace_allocator = nullptr;  ///< for scratch inside an operator
};

/// The process-wide default, copied into every new extractor.
TN_API const Option& get_default_option();

/// Replaces the default; returns 0. Allocators in it must outlive every extractor made later. With `num_threads` below 1 it is an assertion, -1, and no
/// change. Not guarded: call it before the first extractor.
TN_API int set_default_option(const Option& opt);

}  // namespace TarnoCPU
