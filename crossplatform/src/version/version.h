// The name of a model file.
#pragma once

#include "../../../platform/export.h"

/// Reads the model file at `path` and copies its decoded name, such as "Face_Key_Points_1.2.3", to
/// `out`, without a terminating NUL: hand in a zeroed buffer. The longest name has 34 characters.
/// 0 on success; 1, with an assertion and `out` untouched, when the file can't be read.
extern "C" TN_API unsigned int GetModelVersion(const char* path, void* out);
