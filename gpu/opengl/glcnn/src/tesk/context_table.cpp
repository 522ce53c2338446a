// The contexts of the process by id.
#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "tesk.h"

namespace {

struct ContextRecord {
    unsigned int id;
    std::unique_ptr<tesk::Tesk> context;
};

/// An id is a slot's index plus 1. The slot freed last is the first to be used again.
struct ContextTable {
    std::mutex mutex;
    std::vector<std::unique_ptr<ContextRecord>> slots;
    std::vector<size_t> free_slots;
    std::vector<unsigned int> ids_in_use;  ///< in order of creation
};

/// Never destroyed: a host may release its contexts from static destructors of its own.
ContextTable& table() {
    static ContextTable* const contexts = new ContextTable;
    return *contexts;
}

/// The slot that comes next; it stays free until the record stands in it.
size_t next_slot(ContextTable& contexts) {
    if (contexts.free_slots.empty()) {
        // Whoever is released finds room on the stack.
        contexts.free_slots.reserve(contexts.slots.size() + 1);
        contexts.slots.emplace_back();
        contexts.free_slots.push_back(contexts.slots.size() - 1);
    }
    return contexts.free_slots.back();
}

}  // namespace

_TN_Result tesk_Init(unsigned int* id) {
    if (id == nullptr) return TN_Result_Failure;
    ContextTable& contexts = table();
    const std::lock_guard<std::mutex> lock(contexts.mutex);
    const size_t slot = next_slot(contexts);
    *id = static_cast<unsigned int>(slot) + 1;
    // What may throw comes first, so that no slot is lost.
    std::unique_ptr<ContextRecord> record(new ContextRecord{*id, std::make_unique<tesk::Tesk>()});
    contexts.ids_in_use.push_back(*id);
    contexts.free_slots.pop_back();
    contexts.slots[slot] = std::move(record);
    return contexts.slots[slot]->context->tesk_init_win(*id);
}

_TN_Result tesk_UnInit(unsigned int id) {
    ContextTable& contexts = table();
    const std::lock_guard<std::mutex> lock(contexts.mutex);
    const auto found = std::find(contexts.ids_in_use.begin(), contexts.ids_in_use.end(), id);
    if (found == contexts.ids_in_use.end()) return TN_Result_Failure;
    const size_t slot = id - 1;
    if (contexts.slots[slot] == nullptr) return TN_Result_Failure;
    if (contexts.slots[slot]->context->tesk_uninit_win(id) != TN_Result_Success) {
        return TN_Result_Failure;
    }
    contexts.slots[slot].reset();
    contexts.free_slots.push_back(slot);
    contexts.ids_in_use.erase(found);
    return TN_Result_Success;
}

_TN_Result tesk_CheckGLVersion() {
    try {
        tesk::Tesk judge;
        return judge.glVersionIsGreaterThan('4', '2') ? TN_Result_Success
                                                      : TN_Result_GLVersionTooLow;
    } catch (...) {
        return TN_Result_GLVersionTestException;
    }
}
