// Debug traces to paths of a Windows machine.
#pragma once

namespace Tarno {

/// Writes `count` floats at `data`, one a line, to `path`, which names a drive. Where paths have no
/// drives it does nothing: the name would otherwise become a file in the working directory.
void trace_floats(const char* path, const void* data, int count);

}  // namespace Tarno
