#include "picture_pass.h"

#include "glutil/gl.h"
#include "platform/tn_core.h"

namespace tesk {

bool isPicture(const char* operation, const char* role, const std::shared_ptr<Image>& image,
               unsigned int format) {
    if (image == nullptr) {
        Tarno::_LogError("Tarno", "%s: %s: expected an image, found none", operation, role);
        return false;
    }
    if (image->width() <= 0 || image->height() <= 0 || image->channels() < 1 ||
        image->channels() > 4) {
        Tarno::_LogError(
            "Tarno",
            "%s: %s: expected a picture of 1 to 4 channels, found width %d, height %d, "
            "channels %d",
            operation, role, image->width(), image->height(), image->channels());
        return false;
    }
    if (format != 0 && image->format() != format) {
        Tarno::_LogError("Tarno", "%s: %s: expected the GL format 0x%x, found 0x%x", operation,
                         role, format, image->format());
        return false;
    }
    return true;
}

bool hasPool(const char* operation, const TexturePool* pool) {
    if (pool != nullptr) return true;
    Tarno::_LogError("Tarno", "%s: expected a texture pool, found none", operation);
    return false;
}

std::shared_ptr<ComputeProgram> findProgram(ComputeProgramManager* manager, const char* name) {
    if (manager == nullptr || !manager->IsExistComputeProgram(name)) return nullptr;
    return manager->getComputeProgram(name);
}

std::shared_ptr<ComputeProgram> needProgram(const char* operation, ComputeProgramManager* manager,
                                            const char* name) {
    std::shared_ptr<ComputeProgram> program = findProgram(manager, name);
    if (program == nullptr) {
        Tarno::_LogError("Tarno", "%s: expected the program %s to be registered, found none",
                         operation, name);
    }
    return program;
}

}  // namespace tesk
