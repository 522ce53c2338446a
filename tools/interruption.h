// Signals that end the process: what is unfinished goes with it.
#pragma once

#include <string>

namespace tool {

/// Names a file or folder that is about to be made and must not stay when SIGINT, SIGTERM, SIGHUP
/// or SIGPIPE ends the process. The last named goes first, so that a folder is named before what
/// is made in it. Names stay until the end; one whose file was renamed or removed does no harm.
/// Signals that the process was told to ignore stay ignored.
void remove_when_interrupted(const std::string& path);

}  // namespace tool
