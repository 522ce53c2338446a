#include "cpu/mat_storage.h"

#include <utility>

namespace TarnoCPU {
namespace {

// One vector for the blobs of an extractor and a few for the bottoms and tops of a layer.
constexpr size_t most_spares = 8;

struct Spares {
    std::vector<Mat> storage[most_spares];
    size_t count = 0;
    ~Spares();
};

// Set when the thread's spares are gone: an object with static storage may end after them. Plain
// data, which stays readable to the very end of the thread.
thread_local bool spares_gone = false;
thread_local Spares spares;

Spares::~Spares() {
    spares_gone = true;
}

}  // namespace

std::vector<Mat> borrow_mats(size_t count) {
    std::vector<Mat> mats;
    if (!spares_gone && spares.count > 0) mats = std::move(spares.storage[--spares.count]);
    mats.resize(count);
    return mats;
}

void return_mats(std::vector<Mat>& mats) {
    mats.clear();
    if (!spares_gone && spares.count < most_spares && mats.capacity() > 0) {
        spares.storage[spares.count++] = std::move(mats);
    }
}

}  // namespace TarnoCPU
