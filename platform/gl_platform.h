// The hidden GL window and its context, as the operations that a window system offers. The GPU
// runtime knows this interface alone; the Linux one stands on EGL, a test may install a fake.
#pragma once

#include <string>
#include <vector>

#include "export.h"

namespace Tarno {

/// What became of one way to a display, in the order tried.
struct DisplayTrial {
    std::string display;  ///< for instance "device 0 (/dev/dri/card0)" or "default display"
    std::string outcome;  ///< "chosen", or why it was not
    bool chosen = false;
};

/// Handles are the implementation's own; null is none. Every operation that returns a bool or a
/// handle fails with false or null, and `lastError` then tells the system's code.
class TN_API GLPlatform {
public:
    virtual ~GLPlatform();

    /// Makes `class_name` known: one window class for each context.
    virtual bool registerClass(const std::string& class_name) = 0;
    virtual void unregisterClass(const std::string& class_name) = 0;

    /// A window that is never shown.
    virtual void* createWindow(const std::string& class_name, const std::string& title) = 0;
    virtual void destroyWindow(void* window) = 0;

    virtual void* getDeviceContext(void* window) = 0;
    virtual void releaseDeviceContext(void* window, void* device_context) = 0;

    /// A format with 32 colour bits and 16 depth bits, not double-buffered; 0 when there is none.
    virtual int choosePixelFormat(void* device_context) = 0;
    virtual bool setPixelFormat(void* device_context, int format) = 0;

    /// A context without requests about version or profile: the driver gives what it gives.
    virtual void* createContext(void* device_context) = 0;
    virtual void deleteContext(void* context) = 0;
    /// Both null: no context is current on the calling thread any more.
    virtual bool makeCurrent(void* device_context, void* context) = 0;

    /// Code of the last failure on the calling thread.
    virtual unsigned int lastError() = 0;

    /// Loads the GL entry points for the current context; 0 or the loader's complaint.
    virtual unsigned int loadFunctions() = 0;
    /// `GL_VERSION` of the current context; may be null without one.
    virtual const char* versionText() = 0;

    /// The ways to a display that were tried so far; empty before the first window.
    virtual std::vector<DisplayTrial> displayTrials() const;
};

/// The platform in use: this system's, unless `SetGLPlatform` named another.
TN_API GLPlatform& CurrentGLPlatform();

/// Installs `platform`, which stays the caller's, or brings the system's own back with null. Not
/// while a context is alive.
TN_API void SetGLPlatform(GLPlatform* platform);

/// The system's own, defined by the one unit that knows it.
GLPlatform& SystemGLPlatform();

}  // namespace Tarno
