// Stands in for a GL entry point for the length of a scope. GLEW keeps the entry points in variables
// that the library shares with the tests; the first context fills them, so make it first.
#pragma once

#include <GL/glew.h>

namespace testing_support {

template <typename Function>
class ReplacedEntryPoint {
public:
    ReplacedEntryPoint(Function& place, Function replacement) : place(place), before(place) {
        place = replacement;
    }
    ~ReplacedEntryPoint() { place = before; }
    ReplacedEntryPoint(const ReplacedEntryPoint&) = delete;
    ReplacedEntryPoint& operator=(const ReplacedEntryPoint&) = delete;

    /// What the driver does.
    Function original() const { return before; }

private:
    Function& place;
    Function before;
};

}  // namespace testing_support
