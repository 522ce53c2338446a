#include "interruption.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <utility>

namespace tool {
namespace {

/// A list that only grows, at its head, and of which nothing is freed: a signal handler may read it
/// at any time.
struct Unfinished {
    std::unique_ptr<char[]> path;
    Unfinished* before;
};

std::atomic<Unfinished*> last{nullptr};
static_assert(std::atomic<Unfinished*>::is_always_lock_free, "read by a signal handler");

/// Calls nothing but what a handler may call.
void end_by(int number) {
    for (const Unfinished* each = last.load(); each != nullptr; each = each->before) {
        if (unlink(each->path.get()) != 0) rmdir(each->path.get());
    }
    signal(number, SIG_DFL);
    raise(number);
}

void handle_signals() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        struct sigaction now = {};
        if (sigaction(number, nullptr, &now) != 0 || now.sa_handler != SIG_DFL) continue;
        struct sigaction ours = {};
        ours.sa_handler = end_by;
        sigfillset(&ours.sa_mask);
        sigaction(number, &ours, nullptr);
    }
}

}  // namespace

void remove_when_interrupted(const std::string& path) {
    auto path_copy = std::make_unique<char[]>(path.size() + 1);
    std::memcpy(path_copy.get(), path.c_str(), path.size() + 1);
    auto unfinished = std::make_unique<Unfinished>();
    unfinished->path = std::move(path_copy);
    unfinished->before = last.load();
    if (unfinished->before == nullptr) handle_signals();
    last.store(unfinished.release());
}

}  // namespace tool
