// Assertions that stay on in release and return to the caller, which then goes on with its
// failure value.
#pragma once

#include "tn_core.h"

namespace Tarno {

/// The unit's name of a source path: "a/b/mat.cpp" gives "mat". Points at a static buffer per
/// expansion, filled on the first failure.
struct SourceUnitName {
    char text[64];
    explicit SourceUnitName(const char* path) {
        const char* start = path;
        for (const char* p = path; *p != '\0'; ++p) {
            if (*p == '/' || *p == '\\') start = p + 1;
        }
        int length = 0;
        while (start[length] != '\0' && start[length] != '.' && length < 63) {
            text[length] = start[length];
            ++length;
        }
        text[length] = '\0';
    }
};

}  // namespace Tarno

/// Reports `condition` under a fixed source name and line when it is false. The fixed numbers are
/// part of the interface: hosts and their crash statistics key on them.
#define TN_ASSERT_AT(condition, source, line)                                 \
    do {                                                                      \
        if (!(condition)) ::Tarno::ReportAssertion(#condition, source, line); \
    } while (false)

/// Reports `condition` with the unit's name and the real line when it is false.
#define TN_ASSERT(condition)                                           \
    do {                                                               \
        if (!(condition)) {                                            \
            static const ::Tarno::SourceUnitName unit(__FILE__);       \
            ::Tarno::ReportAssertion(#condition, unit.text, __LINE__); \
        }                                                              \
    } while (false)
