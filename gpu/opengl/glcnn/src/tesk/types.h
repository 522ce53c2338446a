// What all headers of the GPU side share.
#pragma once

#include "../../../../../platform/export.h"

/// Marks what the tests call directly. No part of the interface: the headers are not installed.
#define TESK_TESTED TN_API

/// Result of the entry points of the GPU runtime. The numbers are fixed: hosts compare with them.
enum _TN_Result {
    TN_Result_Success = 0,
    /// Window, pixel format, device context or GL context could not be made, or the id is unknown.
    TN_Result_Failure = 1,
    TN_Result_GLVersionTooLow = 5,          ///< not above 4.2
    TN_Result_GLVersionTestException = 6,   ///< the version test threw
};

/// GL's fence object, by its own name, so that these headers need no GL header.
struct __GLsync;
