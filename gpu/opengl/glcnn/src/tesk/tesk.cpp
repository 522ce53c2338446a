#include "tesk.h"

#include <cstring>
#include <string>

#include "platform/gl_platform.h"
#include "platform/tn_core.h"

namespace tesk {

class TeskPrivate {
public:
    explicit TeskPrivate(Tesk* owner) : q(owner) {}

    Tesk* q;
    void* gl_context = nullptr;
    void* device_context = nullptr;
    void* window = nullptr;
};

namespace {

std::string window_class_name(unsigned int id) {
    return "tarno" + std::to_string(id);
}

}  // namespace

Tesk::Tesk() : d(new TeskPrivate(this)) {}

Tesk::~Tesk() {
    delete d;
}

_TN_Result Tesk::tesk_init_win(unsigned int id) {
    if (tn_d()->gl_context != nullptr) return TN_Result_Success;
    Tarno::GLPlatform& platform = Tarno::CurrentGLPlatform();
    const std::string class_name = window_class_name(id);

    if (!platform.registerClass(class_name)) return TN_Result_Failure;
    void* const window = platform.createWindow(class_name, "AITarno");
    if (window == nullptr) return TN_Result_Failure;

    void* const device_context = platform.getDeviceContext(window);
    if (device_context == nullptr) {
        platform.destroyWindow(window);
        platform.unregisterClass(class_name);
        return TN_Result_Failure;
    }

    // From here on a failure leaves the window class registered.
    const auto give_up = [&] {
        platform.releaseDeviceContext(window, device_context);
        platform.destroyWindow(window);
        return TN_Result_Failure;
    };
    const int format = platform.choosePixelFormat(device_context);
    if (format == 0) {
        Tarno::_LogError("Tarno", "ChoosePixelFormat ErrorCode: %u", platform.lastError());
        return give_up();
    }
    if (!platform.setPixelFormat(device_context, format)) return give_up();
    void* const context = platform.createContext(device_context);
    if (context == nullptr) {
        Tarno::_LogError("Tarno", "wglCreateContext ErrorCode: %u", platform.lastError());
        return give_up();
    }
    if (!platform.makeCurrent(device_context, context)) {
        Tarno::_LogError("Tarno", "wglMakeCurrent ErrorCode: %u", platform.lastError());
        platform.deleteContext(context);
        return give_up();
    }

    // The entry points are loaded once for each context, not once for each object.
    Tesk loader;
    loader.init_glew();
    // A context that is too old stays current and is not stored: hosts that fall back to another
    // path on the same thread have relied on finding it there.
    if (!glVersionIsGreaterThan('4', '2')) return TN_Result_GLVersionTooLow;

    tn_d()->gl_context = context;
    tn_d()->device_context = device_context;
    tn_d()->window = window;
    return TN_Result_Success;
}

_TN_Result Tesk::tesk_uninit_win(unsigned int id) {
    Tarno::GLPlatform& platform = Tarno::CurrentGLPlatform();
    TeskPrivate* const held = tn_d();
    platform.makeCurrent(nullptr, nullptr);
    if (held->gl_context != nullptr) {
        platform.deleteContext(held->gl_context);
        held->gl_context = nullptr;
    }
    if (held->device_context != nullptr) {
        platform.releaseDeviceContext(held->window, held->device_context);
        held->device_context = nullptr;
    }
    if (held->window != nullptr) {
        const std::string class_name = window_class_name(id);
        platform.destroyWindow(held->window);
        held->window = nullptr;
        platform.unregisterClass(class_name);
    }
    return TN_Result_Success;
}

void Tesk::init_glew() {
    if (glew_initialised) return;
    if (Tarno::CurrentGLPlatform().loadFunctions() != 0) {
        Tarno::_LogVerbose("Tarno", "Opengl Context initial Failed!");
    }
    glew_initialised = true;
}

bool Tesk::checkGLVersionIsOk() {
    return glVersionIsGreaterThan('4', '2');
}

bool Tesk::glVersionIsGreaterThan(char major, char minor) {
    const char* const text = Tarno::CurrentGLPlatform().versionText();
    const char* const version = text != nullptr ? text : "";
    Tarno::_LogVerbose("Tarno", "glinfo version: %s", version);
    const char* const point = std::strchr(version, '.');
    if (point == nullptr || point == version) return false;
    if (point[-1] < major) return false;
    if (point[-1] == major) return point[1] > minor;
    return true;
}

}  // namespace tesk
