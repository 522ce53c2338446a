// GL contexts by number: a hidden window, a context current on the calling thread, OpenGL 4.3.
#pragma once

#include "types.h"

extern "C" {

/// Makes a context and leaves it current on the calling thread, which is from then on the thread
/// for all GPU objects of that context. Writes an id above 0 to `*id` before anything is tried, so
/// that `tesk_UnInit(*id)` is right after every result. Failure without a change when `id` is null.
/// Serialised over threads by a process-wide mutex, whose errors come out as std::system_error.
///
/// When the driver is too old (5) the context stays current and has no owner: `tesk_UnInit` frees
/// the id, not the context.
TN_API _TN_Result tesk_Init(unsigned int* id);

/// Releases the context of `id`, and whatever context is current on the calling thread. The objects
/// in it must be gone before. Failure when the id is not in use.
TN_API _TN_Result tesk_UnInit(unsigned int id);

/// Judges the context that is current on the calling thread: success, or too low. Takes no mutex.
TN_API _TN_Result tesk_CheckGLVersion();
}

namespace tesk {

class TeskPrivate;

/// One hidden window with its GL context.
class TN_API Tesk {
public:
    Tesk();
    ~Tesk();
    Tesk(const Tesk&) = delete;
    Tesk& operator=(const Tesk&) = delete;

    /// Makes window and context under the name "tarno<id>". Nothing to do when there is one.
    _TN_Result tesk_init_win(unsigned int id);
    /// Clears the calling thread's current context and tears down what is held. Always success.
    _TN_Result tesk_uninit_win(unsigned int id);

    /// Loads the GL entry points for the current context, once for each object. A complaint of the
    /// loader is logged and ignored: the version test shows whether the context is of use.
    void init_glew();
    bool checkGLVersionIsOk();
    /// Digits as characters. Only the characters on both sides of the first point of GL_VERSION
    /// count, so "10.0" is judged by its '0'.
    bool glVersionIsGreaterThan(char major, char minor);

private:
    TeskPrivate* tn_d() { return d; }
    const TeskPrivate* tn_d() const { return d; }

    TeskPrivate* d;
    bool glew_initialised = false;
};

}  // namespace tesk
