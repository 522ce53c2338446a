// The groups of the built-in catalogue.
#include "compute_program_manager.h"
#include "platform/tn_core.h"
#include "program_sources.h"

namespace tesk {
namespace {

enum Group { General, Audio, FaceDetection, PeleeSegment };

struct Registration {
    Group group;
    const char* name;
};

/// In order of registration within each group.
constexpr Registration registrations[] = {
#define TESK_PROGRAM(name, x, y, z, interface)
#define TESK_IN_GROUP(group, name) {group, name},
#include "programs/manifest.def"
#undef TESK_PROGRAM
#undef TESK_IN_GROUP
};

bool register_group(Group group, ComputeProgramManager* manager) {
    if (manager == nullptr) {
        Tarno::_LogError("Tarno", "program group: expected a manager to register with, found none");
        return false;
    }
    for (const Registration& registration : registrations) {
        if (registration.group == group) {
            manager->addComputeProgramFromString(programSource(registration.name),
                                                 registration.name);
        }
    }
    return false;
}

}  // namespace

bool ComputeProgramManager::initProgramBinary(const BinFileInfo&,
                                              tesk::ComputeProgramManager* manager) {
    return register_group(General, manager);
}

bool ComputeProgramManager::initProgramBinary_Audio(const BinFileInfo&,
                                                    tesk::ComputeProgramManager* manager) {
    return register_group(Audio, manager);
}

bool ComputeProgramManager::initProgramBinary_faceDetection(const BinFileInfo&,
                                                            tesk::ComputeProgramManager* manager) {
    return register_group(FaceDetection, manager);
}

bool ComputeProgramManager::initProgramBinary_peleeSegment(const BinFileInfo&,
                                                           tesk::ComputeProgramManager* manager) {
    return register_group(PeleeSegment, manager);
}

}  // namespace tesk
