// Vectors of `Mat` whose storage a thread keeps for its next run, so that a warm run of a net takes
// nothing from the heap.
#pragma once

#include <vector>

#include "mat.h"

namespace TarnoCPU {

/// `count` empty tensors, in storage that the calling thread has left from an earlier vector when
/// there is some.
std::vector<Mat> borrow_mats(size_t count);

/// Releases the tensors and keeps the storage for the calling thread.
void return_mats(std::vector<Mat>& mats);

/// A borrowed vector for the length of a scope.
class BorrowedMats {
public:
    explicit BorrowedMats(size_t count) : mats(borrow_mats(count)) {}
    ~BorrowedMats() { return_mats(mats); }
    BorrowedMats(const BorrowedMats&) = delete;
    BorrowedMats& operator=(const BorrowedMats&) = delete;

    std::vector<Mat> mats;
};

}  // namespace TarnoCPU
