// The hidden window on EGL: a pixel buffer of one pixel, or no surface at all, on a display that
// needs no window system. EGL displays are shared by the whole process, so none is ever terminated:
// the host may be using the same one.
#define EGL_NO_X11
#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GL/glew.h>

#include <cstring>
#include <memory>

#include "gl_platform.h"
#include "tn_core.h"

namespace Tarno {
namespace {

bool has_word(const char* words, const char* word) {
    if (words == nullptr) return false;
    const size_t length = std::strlen(word);
    for (const char* p = words; (p = std::strstr(p, word)) != nullptr; p += length) {
        const bool starts = p == words || p[-1] == ' ';
        if (starts && (p[length] == '\0' || p[length] == ' ')) return true;
    }
    return false;
}

template <typename Function>
Function entry_point(const char* name) {
    return reinterpret_cast<Function>(eglGetProcAddress(name));
}

/// 32 colour bits, 16 depth bits or more, desktop GL, with the surface kind asked for.
EGLConfig choose_config(EGLDisplay display, EGLint surface_bits) {
    const EGLint wanted[] = {EGL_SURFACE_TYPE, surface_bits, EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT,
                             EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8,
                             EGL_ALPHA_SIZE, 8, EGL_DEPTH_SIZE, 16, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 0;
    if (eglChooseConfig(display, wanted, &config, 1, &count) == EGL_FALSE || count < 1) {
        return nullptr;
    }
    return config;
}

std::string hexadecimal(EGLint code) {
    static const char digits[] = "0123456789abcdef";
    std::string text = "0x0000";
    for (int i = 0; i < 4; ++i)
        text[static_cast<size_t>(5 - i)] = digits[(code >> (4 * i)) & 15];
    return text;
}

/// Code of the step that ran last on this thread.
thread_local EGLint last_error = EGL_SUCCESS;

struct Window {
    EGLDisplay display;
    EGLConfig config;
    EGLSurface surface;
};

/// A context's display is its window's: the platform's may have become another since.
struct Context {
    EGLDisplay display;
    EGLContext context;
};

class EglPlatform final : public GLPlatform {
public:
    /// A window class has no counterpart here; the display is found on the first one.
    bool registerClass(const std::string&) override { return find_display(); }
    void unregisterClass(const std::string&) override {}

    void* createWindow(const std::string&, const std::string&) override {
        return new Window{display, nullptr, EGL_NO_SURFACE};
    }
    void destroyWindow(void* window) override {
        const std::unique_ptr<Window> doomed(static_cast<Window*>(window));
        if (doomed->surface != EGL_NO_SURFACE) eglDestroySurface(doomed->display, doomed->surface);
    }

    /// The window is its own device context.
    void* getDeviceContext(void* window) override { return window; }
    void releaseDeviceContext(void*, void*) override {}

    int choosePixelFormat(void* device_context) override {
        Window* window = static_cast<Window*>(device_context);
        window->config = choose_config(window->display, surfaceless(window->display) ? 0 : EGL_PBUFFER_BIT);
        last_error = eglGetError();
        return window->config != nullptr ? 1 : 0;
    }
    bool setPixelFormat(void* device_context, int) override {
        Window* window = static_cast<Window*>(device_context);
        if (surfaceless(window->display)) return true;
        const EGLint size[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
        window->surface = eglCreatePbufferSurface(window->display, window->config, size);
        last_error = eglGetError();
        return window->surface != EGL_NO_SURFACE;
    }

    void* createContext(void* device_context) override {
        const Window* window = static_cast<Window*>(device_context);
        const BoundApi api;
        const EGLContext context =
            eglCreateContext(window->display, window->config, EGL_NO_CONTEXT, nullptr);
        last_error = eglGetError();
        if (context == EGL_NO_CONTEXT) return nullptr;
        return new Context{window->display, context};
    }
    void deleteContext(void* context) override {
        const std::unique_ptr<Context> doomed(static_cast<Context*>(context));
        eglDestroyContext(doomed->display, doomed->context);
    }
    /// What is current is kept for each API, so desktop GL is bound for the release, too. A release
    /// goes to the display of what is current on the thread; there may be nothing.
    bool makeCurrent(void* device_context, void* context) override {
        const BoundApi api;
        EGLBoolean done = EGL_TRUE;
        if (context != nullptr) {
            const Window* window = static_cast<Window*>(device_context);
            done = eglMakeCurrent(window->display, window->surface, window->surface,
                                  static_cast<Context*>(context)->context);
        } else if (const EGLDisplay current = eglGetCurrentDisplay(); current != EGL_NO_DISPLAY) {
            done = eglMakeCurrent(current, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        }
        last_error = eglGetError();
        return done == EGL_TRUE;
    }

    /// Kept by the steps themselves: every later call of EGL, the rebinding of the API among them,
    /// clears the code.
    unsigned int lastError() override { return static_cast<unsigned int>(last_error); }

    unsigned int loadFunctions() override {
        glewExperimental = GL_TRUE;
        const GLenum complaint = glewInit();
        // The loader asks core profiles for the old extension string; the error is its own.
        for (int i = 0; i < 8 && glGetError() != GL_NO_ERROR; ++i) continue;
        return complaint;
    }
    const char* versionText() override {
        return reinterpret_cast<const char*>(glGetString(GL_VERSION));
    }

    std::vector<DisplayTrial> displayTrials() const override { return trials; }

private:
    /// Desktop GL is bound for the length of a scope: a host on the same thread may use GLES.
    struct BoundApi {
        EGLenum before = eglQueryAPI();
        BoundApi() { eglBindAPI(EGL_OPENGL_API); }
        ~BoundApi() { eglBindAPI(before); }
        BoundApi(const BoundApi&) = delete;
        BoundApi& operator=(const BoundApi&) = delete;
    };

    static bool surfaceless(EGLDisplay asked) {
        return has_word(eglQueryString(asked, EGL_EXTENSIONS), "EGL_KHR_surfaceless_context");
    }

    bool find_display() {
        // Displays are shared with the host, who may have terminated this one. Initialising it once
        // more is free when nothing happened.
        if (display != EGL_NO_DISPLAY && eglInitialize(display, nullptr, nullptr) == EGL_TRUE) {
            return true;
        }
        display = EGL_NO_DISPLAY;
        trials.clear();
        const char* extensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
        if (try_hardware_devices(extensions)) return true;
        if (try_display("default display", eglGetDisplay(EGL_DEFAULT_DISPLAY))) return true;
        if (try_surfaceless_platform(extensions)) return true;
        report_trials();
        return false;
    }

    /// No step behind this one runs that could say why there is no context.
    void report_trials() const {
        std::string tried;
        for (const DisplayTrial& trial : trials)
            tried += (tried.empty() ? "" : "; ") + trial.display + ": " + trial.outcome;
        _LogError("Tarno", "EGL: expected a display with desktop OpenGL, found none (%s)",
                  tried.c_str());
    }

    bool try_hardware_devices(const char* extensions) {
        const auto query_devices =
            entry_point<PFNEGLQUERYDEVICESEXTPROC>("eglQueryDevicesEXT");
        const auto query_string =
            entry_point<PFNEGLQUERYDEVICESTRINGEXTPROC>("eglQueryDeviceStringEXT");
        const auto get_display =
            entry_point<PFNEGLGETPLATFORMDISPLAYEXTPROC>("eglGetPlatformDisplayEXT");
        const bool enumerates = has_word(extensions, "EGL_EXT_device_base") ||
                                has_word(extensions, "EGL_EXT_device_enumeration");
        if (!enumerates || !has_word(extensions, "EGL_EXT_platform_device") ||
            query_devices == nullptr || query_string == nullptr || get_display == nullptr) {
            trials.push_back({"hardware devices", "EGL lists no devices", false});
            return false;
        }
        EGLDeviceEXT devices[16];
        EGLint count = 0;
        if (query_devices(16, devices, &count) == EGL_FALSE) count = 0;
        if (count == 0) trials.push_back({"hardware devices", "none is listed", false});
        for (EGLint i = 0; i < count; ++i) {
            const char* words = query_string(devices[i], EGL_EXTENSIONS);
            std::string name = "device " + std::to_string(i);
            if (has_word(words, "EGL_EXT_device_drm")) {
                const char* file = query_string(devices[i], EGL_DRM_DEVICE_FILE_EXT);
                if (file != nullptr) name += std::string(" (") + file + ")";
            }
            if (has_word(words, "EGL_MESA_device_software")) {
                trials.push_back({name, "renders in software", false});
                continue;
            }
            if (try_display(name, get_display(EGL_PLATFORM_DEVICE_EXT, devices[i], nullptr))) {
                return true;
            }
        }
        return false;
    }

    bool try_surfaceless_platform(const char* extensions) {
        const auto get_display =
            entry_point<PFNEGLGETPLATFORMDISPLAYEXTPROC>("eglGetPlatformDisplayEXT");
        if (!has_word(extensions, "EGL_MESA_platform_surfaceless") || get_display == nullptr) {
            trials.push_back({"surfaceless platform", "EGL does not offer it", false});
            return false;
        }
        return try_display("surfaceless platform", get_display(EGL_PLATFORM_SURFACELESS_MESA,
                                                               EGL_DEFAULT_DISPLAY, nullptr));
    }

    /// A display is taken when a desktop GL context can be made on it. Which version that is, the
    /// caller judges.
    bool try_display(const std::string& name, EGLDisplay candidate) {
        const std::string outcome = judge(candidate);
        trials.push_back({name, outcome.empty() ? "chosen" : outcome, outcome.empty()});
        if (outcome.empty()) display = candidate;
        return outcome.empty();
    }
    static std::string judge(EGLDisplay candidate) {
        if (candidate == EGL_NO_DISPLAY) return "there is none";
        if (eglInitialize(candidate, nullptr, nullptr) == EGL_FALSE) {
            return "cannot be initialised (error " + hexadecimal(eglGetError()) + ")";
        }
        const char* words = eglQueryString(candidate, EGL_EXTENSIONS);
        const bool needs_surface = !has_word(words, "EGL_KHR_surfaceless_context");
        const EGLConfig config = choose_config(candidate, needs_surface ? EGL_PBUFFER_BIT : 0);
        if (config == nullptr) return "offers no pixel format for desktop OpenGL";
        const BoundApi api;
        const EGLContext context = eglCreateContext(candidate, config, EGL_NO_CONTEXT, nullptr);
        if (context == EGL_NO_CONTEXT) {
            return "makes no OpenGL context (error " + hexadecimal(eglGetError()) + ")";
        }
        eglDestroyContext(candidate, context);
        return "";
    }

    EGLDisplay display = EGL_NO_DISPLAY;
    std::vector<DisplayTrial> trials;
};

}  // namespace

GLPlatform& SystemGLPlatform() {
    static EglPlatform platform;
    return platform;
}

}  // namespace Tarno
