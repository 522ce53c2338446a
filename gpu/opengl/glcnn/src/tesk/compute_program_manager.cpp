#include "compute_program_manager.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "glutil/gl.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

const char* gl_text(GLenum name) {
    const char* const text = reinterpret_cast<const char*>(glGetString(name));
    return text != nullptr ? text : "";
}

/// Little-endian 32-bit words and bytes of a file whose length bounds what they may claim.
class BoundedFile {
public:
    explicit BoundedFile(const std::string& path) : file(std::fopen(path.c_str(), "rb+")) {
        if (file == nullptr || std::fseek(file, 0, SEEK_END) != 0) return;
        const long size = std::ftell(file);
        std::rewind(file);
        left = size > 0 ? size : 0;
    }
    ~BoundedFile() {
        if (file != nullptr) std::fclose(file);
    }
    BoundedFile(const BoundedFile&) = delete;
    BoundedFile& operator=(const BoundedFile&) = delete;

    bool is_open() const { return file != nullptr; }
    /// Whether `count` items of `bytes` each can still follow.
    bool holds(int64_t count, int64_t bytes) const {
        return count >= 0 && (bytes == 0 || count <= left / bytes);
    }
    bool read(void* dst, int64_t bytes) {
        if (!holds(bytes, 1)) return false;
        left -= bytes;
        return std::fread(dst, 1, static_cast<size_t>(bytes), file) == static_cast<size_t>(bytes);
    }
    bool read_word(uint32_t& word) {
        unsigned char bytes[4];
        if (!read(bytes, 4)) return false;
        word = bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
               uint32_t{bytes[3]} << 24;
        return true;
    }
    bool read_int(int& value) {
        uint32_t word;
        if (!read_word(word)) return false;
        std::memcpy(&value, &word, sizeof(value));
        return true;
    }

private:
    std::FILE* file;
    int64_t left = 0;
};

/// Behind the lines that say what is wrong with it: whose program it is.
void report_without_code(const std::string& name) {
    Tarno::_LogError("Tarno", "program %s: expected code that compiles and links, see above",
                     name.c_str());
}

constexpr int entry_head_bytes = 12;

bool read_entry(BoundedFile& file, BinFileEntry& entry) {
    int length = 0;
    if (!file.read_int(entry.first_word) || !file.read_int(length) ||
        !file.read_int(entry.second_word) || !file.holds(length, 1)) {
        return false;
    }
    entry.data = new (std::nothrow) char[static_cast<size_t>(length)];
    if (entry.data == nullptr) return false;
    entry.length = length;
    return file.read(entry.data, length);
}

}  // namespace

ComputeProgramManager::ComputeProgramManager(unsigned int number, const std::string& name)
    : clientNumber(number), cacheName(name) {}

ComputeProgramManager::~ComputeProgramManager() = default;

void ComputeProgramManager::initOpenglParameters() {
    if (!entryPointsLoaded() || glGetString(GL_VERSION) == nullptr) {
        Tarno::_LogError("Tarno", "OpenGL limits: expected a current context, found none");
        initTricksParameters();
        return;
    }
    glGetIntegerv(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT, &uniformBufferOffsetAlignment);
    glGetIntegerv(GL_MAX_UNIFORM_BLOCK_SIZE, &maxUniformBlockSize);
    glGetIntegerv(GL_MAX_UNIFORM_BUFFER_BINDINGS, &maxUniformBufferBindings);
    glGetIntegerv(GL_MAX_COMPUTE_WORK_GROUP_INVOCATIONS, &maxComputeWorkGroupInvocations);
    glGetIntegerv(GL_MAX_COMPUTE_SHARED_MEMORY_SIZE, &maxComputeSharedMemorySize);
    glGetIntegeri_v(GL_MAX_COMPUTE_WORK_GROUP_SIZE, 2, &maxComputeWorkGroupSizeZ);
    maxUniformVec4Count = maxUniformBlockSize >> 4;

    Tarno::_LogVerbose("Tarno", "Opengl info:GL_MAX_COMPUTE_WORK_GROUP_INVOCATIONS = %d.",
                       maxComputeWorkGroupInvocations);
    Tarno::_LogVerbose("Tarno", "Opengl info:GL_MAX_COMPUTE_SHARED_MEMORY_SIZE = %d.",
                       maxComputeSharedMemorySize);
    Tarno::_LogVerbose("Tarno", "Opengl info:GL_MAX_UNIFORM_BLOCK_SIZE = %d.", maxUniformBlockSize);
    Tarno::_LogVerbose("Tarno", "Opengl info:GL_MAX_COMPUTE_WORK_GROUP_SIZE_Z = %d.",
                       maxComputeWorkGroupSizeZ);
    if (maxComputeWorkGroupSizeZ == 0) {
        Tarno::_LogVerbose("Tarno", "get max compute work group size error.");
        maxComputeWorkGroupSizeZ = 1;
    }
    for (const GLenum name : {GL_VENDOR, GL_RENDERER, GL_VERSION})
        Tarno::_LogInfo("Tarno", "OpenGL Info: %s", gl_text(name));
    initTricksParameters();
}

void ComputeProgramManager::initTricksParameters() {
    // One setting serves every driver met so far; what the three say decides nothing. They are read
    // all the same: this is the place for a driver that needs another setting.
    if (entryPointsLoaded()) {
        for (const GLenum name : {GL_VENDOR, GL_VERSION, GL_RENDERER}) gl_text(name);
    }
    tricksMode = 4;
    uboSliceLimit = 0;
}

bool ComputeProgramManager::addComputeProgramFromString(const char* source,
                                                        const std::string& name) {
    if (IsExistComputeProgram(name)) return true;
    bool built = false;
    const std::shared_ptr<ComputeProgram>& stored = programs[name] =
        createComputeProgramFromString(source, true, &built);
    if (stored == nullptr) {
        Tarno::_LogError("Tarno", "shader source error, %s", source);
        return false;
    }
    if (!built) report_without_code(name);
    return true;
}

bool ComputeProgramManager::addComputeProgramFromFile(const std::string& path,
                                                      const std::string& name) {
    bool built = false;
    const std::shared_ptr<ComputeProgram> program =
        createComputeProgramFromFile(path, true, &built);
    if (program == nullptr) return false;
    if (!built) report_without_code(name);
    programs[name] = program;
    return true;
}

bool ComputeProgramManager::IsExistComputeProgram(const std::string& name) {
    return programs.count(name) != 0;
}

std::shared_ptr<tesk::ComputeProgram> ComputeProgramManager::getComputeProgram(
    const std::string& name) {
    return programs[name];
}

std::shared_ptr<tesk::ComputeProgram> ComputeProgramManager::createComputeProgramFromString(
    const char* source, bool flag, bool* built) {
    // The pointer is right whatever became of the build: callers hold a program without code then.
    const auto program = std::make_shared<ComputeProgram>();
    *built = program->createFromCharArray(source, flag);
    return program;
}

std::shared_ptr<tesk::ComputeProgram> ComputeProgramManager::createComputeProgramFromFile(
    const std::string& path, bool flag, bool* built) {
    const auto program = std::make_shared<ComputeProgram>();
    *built = program->createFromFile(path, flag);
    return program;
}

void ComputeProgramManager::release() {
    programs.clear();
}

bool ComputeProgramManager::binaryFileExist() {
    cacheUsable = false;
    return false;
}

bool ComputeProgramManager::binaryFileExist(const BinFileInfo&) {
    return binaryFileExist();
}

bool ComputeProgramManager::loadProgramBinary() {
    if (readCacheFile()) return true;
    cacheUsable = false;
    return false;
}

bool ComputeProgramManager::readCacheFile() {
    BoundedFile file(cachePath);
    if (!file.is_open()) return false;
    for (uint32_t& word : cacheInfo.words) {
        if (!file.read_word(word)) return false;
    }
    int count = 0;
    if (!file.read_int(count) || !file.holds(count, entry_head_bytes)) return false;
    cacheEntries = new (std::nothrow) BinFileEntry[static_cast<size_t>(count)]();
    if (cacheEntries == nullptr) return false;
    cacheEntryCount = count;
    for (int i = 0; i < count; ++i) {
        if (!read_entry(file, cacheEntries[i])) return false;
    }
    return true;
}

std::string ComputeProgramManager::cacheFileName(const std::string& name, int first, int second) {
    char text[1024];
    std::snprintf(text, sizeof(text), "%s%s%s%d%d%s", "./", name.empty() ? "shaderBin" : name.c_str(),
                  "Offical", first, second, ".bin");
    return text;
}

void ComputeProgramManager::save2bin() {}

void ComputeProgramManager::resetBinFileStatus() {
    cacheEntries = nullptr;
    cachePosition = 0;
    cacheEntryCount = 0;
    cacheUsable = true;
    cacheInfo = BinFileInfo();
    cachePath.clear();
}

}  // namespace tesk
