#include "program_sources.h"

namespace tesk {
namespace {

struct ProgramSource {
    const char* name;
    const char* text;
};

constexpr ProgramSource sources[] = {
#include "program_sources.inc"
};

}  // namespace

const char* programSource(const std::string& name) {
    for (const ProgramSource& source : sources) {
        if (name == source.name) return source.text;
    }
    return nullptr;
}

}  // namespace tesk
