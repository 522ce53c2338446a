// Compiled programs by name, the limits of the GL implementation, and the built-in catalogue.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "glutil/compute_program.h"
#include "tesk.h"
#include "types.h"

namespace tesk {

/// Header of a cache file of compiled programs: four words without a meaning so far.
struct BinFileInfo {
    uint32_t words[4];
};

/// One record of that file.
struct BinFileEntry {
    int length;  ///< bytes at `data`
    int second_word;
    int first_word;
    char* data;
};

/// One for each context. A program is compiled once under its name and shared by all who ask for
/// it. In this order: constructor (needs no context), `initOpenglParameters`, `initProgramBinary`
/// and its sisters as needed, use, `release` while the context is still current.
class TN_API ComputeProgramManager {
public:
    /// Both are stored for the client.
    ComputeProgramManager(unsigned int number, const std::string& name);
    /// Entries that `loadProgramBinary` allocated are not freed.
    ~ComputeProgramManager();
    ComputeProgramManager(const ComputeProgramManager&) = delete;
    ComputeProgramManager& operator=(const ComputeProgramManager&) = delete;

    /// Reads the limits below from the current context, logs them, and calls
    /// `initTricksParameters`. Without a context the start values stay.
    void initOpenglParameters();
    /// Sets `tricksMode` to 4 and `uboSliceLimit` to 0, whatever the driver.
    void initTricksParameters();

    /// Compiles `source` and keeps it under `name`; the first source of a name wins. True also when
    /// it does not compile: the name then stands for a program without code, and the log says why.
    bool addComputeProgramFromString(const char* source, const std::string& name);
    /// The same from a file, replacing what has the name.
    bool addComputeProgramFromFile(const std::string& path, const std::string& name);
    bool IsExistComputeProgram(const std::string& name);
    /// The program of that name. Ask `IsExistComputeProgram` first: an unknown name gives an empty
    /// pointer and is taken from then on.
    std::shared_ptr<tesk::ComputeProgram> getComputeProgram(const std::string& name);
    /// Forgets all programs; those still shared by others live on.
    void release();

    /// The groups of the built-in catalogue, registered with `manager`: everything but the special
    /// models' own (98 programs), audio (8), faces (22), segmentation (13). `info` is not read. The
    /// result is false in every case and says nothing. A null manager is logged, and no more.
    bool initProgramBinary(const BinFileInfo& info, tesk::ComputeProgramManager* manager);
    bool initProgramBinary_Audio(const BinFileInfo& info, tesk::ComputeProgramManager* manager);
    bool initProgramBinary_faceDetection(const BinFileInfo& info,
                                         tesk::ComputeProgramManager* manager);
    bool initProgramBinary_peleeSegment(const BinFileInfo& info,
                                        tesk::ComputeProgramManager* manager);

    /// The cache of compiled programs has a reader and no writer. Both forms mark it unusable and
    /// return false.
    bool binaryFileExist();
    bool binaryFileExist(const BinFileInfo& info);
    /// Reads the file at `cachePath` into `cacheEntries`: 32-bit little-endian words, four of
    /// `cacheInfo`, the count, then for each entry first word, length, second word, data. False, and
    /// the cache marked unusable, when it cannot be opened for reading and writing or claims more
    /// than it holds; the entries read so far stay, the others are zero. `data` of each entry and
    /// the array itself come from new[] and are the client's to free. Nothing is handed to GL.
    bool loadProgramBinary();
    /// "<folder prefix><name, or shaderBin>Offical<first><second>.bin"
    static std::string cacheFileName(const std::string& name, int first, int second);

    /// Programs under a name, empty pointers included.
    int programCount() const { return static_cast<int>(programs.size()); }

    BinFileEntry* cacheEntries = nullptr;
    int cachePosition = 0;
    int cacheEntryCount = 0;
    bool cacheUsable = true;
    unsigned int clientNumber;

    // Limits of the GL implementation. Sizes are bytes.
    int uniformBufferOffsetAlignment = 256;
    int maxUniformBlockSize = 65536;
    int maxUniformBufferBindings = 0;
    int maxUniformVec4Count = 4096;  ///< `maxUniformBlockSize` / 16
    int maxComputeWorkGroupInvocations = 1024;
    int tuningWord1 = 4;
    int maxComputeSharedMemorySize = 2048;
    int maxComputeWorkGroupSizeZ = 64;
    int tuningWord2 = 6;
    int tuningWord3 = 8;
    int tuningWord4 = 0;
    int tricksMode = 4;  ///< selects the shader generators of a net
    int tuningWord6 = 0;
    int uboSliceLimit = 4;  ///< above it weights go to storage buffers
    /// Tuning words 8 and 9: the base size in pixels that the relative shapes of a model multiply.
    int netWidth = 256;
    int netHeight = 256;

    /// Where the time of setting up nets with this manager went, in milliseconds, and how many
    /// programs they made and how many they found made.
    struct SetupCosts {
        double packing = 0.0;
        double source = 0.0;
        double compiling = 0.0;
        int programsMade = 0;
        int programsShared = 0;
    };
    SetupCosts setupCosts;

    /// File that `loadProgramBinary` reads; the client's to set.
    std::string cachePath;
    BinFileInfo cacheInfo = {};
    std::string cacheName;

private:
    std::shared_ptr<tesk::ComputeProgram> createComputeProgramFromString(const char* source,
                                                                         bool flag, bool* built);
    std::shared_ptr<tesk::ComputeProgram> createComputeProgramFromFile(const std::string& path,
                                                                       bool flag, bool* built);
    bool readCacheFile();
    void save2bin();
    void resetBinFileStatus();

    tesk::Tesk context;  ///< of its own, without a GL context
    std::map<std::string, std::shared_ptr<tesk::ComputeProgram>> programs;
};

}  // namespace tesk
