#include "crossplatform/src/version/version.h"

#include <cstring>
#include <string>

#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"
#include "platform/assertion.h"

unsigned int GetModelVersion(const char* path, void* out) {
    ZQNetLoader loader;
    if (!loader.LoadFile(path, false)) {
        TN_ASSERT_AT(false && "Cann't load model file", "version", 10);
        return 1;
    }
    const std::string name = loader.decodeModelID();
    if (out != nullptr) std::memcpy(out, name.data(), name.size());
    return 0;
}
