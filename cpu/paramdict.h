// A layer's scalar parameters on their way to its operator.
#pragma once

#include "../platform/export.h"
#include "mat.h"

namespace TarnoCPU {

/// Twenty numbered entries, ids 0 to 19. An entry holds an int or a float in the same 32 bits, with
/// no tag that tells which, and a `Mat`. Ids outside the range read as absent and are not stored.
class TN_API ParamDict {
public:
    static constexpr int entry_count = 20;

    ParamDict();

    /// Forgets all entries and releases their `Mat`s.
    void clear();

    /// The stored value, or `def` for an entry that was never set. Reading a float from an entry
    /// that was set as an int yields the int's bits.
    int get(int id, int def) const;
    float get(int id, float def) const;
    Mat get(int id, const Mat& def) const;

    void set(int id, int value);
    void set(int id, float value);
    /// Shares the block.
    void set(int id, const Mat& value);

private:
    struct Entry {
        int loaded = 0;
        union {
            int i;
            float f;
        };
        Mat v;
        Entry() : i(0) {}
    };
    Entry entries[entry_count];
};

}  // namespace TarnoCPU
