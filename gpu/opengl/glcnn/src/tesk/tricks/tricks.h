// The base of all shader generators.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "../compute_program_manager.h"
#include "../glutil/buffer.h"
#include "../glutil/image.h"
#include "../types.h"

class ZQLayerInfo;
struct shape3;

namespace tesk {

/// A generator owns one layer's shader. `setup` packs the weights, works out the dispatch size and
/// gets a program under a name that holds every constant of the source, so that layers with equal
/// constants share one. `compute` binds and dispatches; it keeps no state between runs.
///
/// A subclass makes name and text from plain numbers in `programName` and `generateSource`, which
/// need no context.
class TESK_TESTED Tricks {
public:
    explicit Tricks(tesk::ComputeProgramManager* manager) : manager(manager) {}
    virtual ~Tricks();
    /// Frees a block of operator new.
    virtual void release(void* p);
    /// `record` is of the class that the generator is for, and is not kept.
    virtual void setup(ZQLayerInfo* record);
    /// Layers with several inputs.
    virtual void compute(std::vector<std::shared_ptr<tesk::Image>>& inputs, tesk::Image* output);
    virtual void compute(tesk::Image* input, tesk::Image* output);
    /// Logs one line that names the class.
    virtual void print();

    /// Whether a program that `setup` asked for does not link. What it says of a record that
    /// `setup` refused: false.
    bool lacksProgram() const { return lacks_program; }

    Tricks(const Tricks&) = delete;
    Tricks& operator=(const Tricks&) = delete;

protected:
    /// The program of that name; `make_source` is asked for its text when there is none yet. Counts
    /// and times go to the manager's `setupCosts`.
    template <typename MakeSource>
    std::shared_ptr<tesk::ComputeProgram> shareProgram(const std::string& name,
                                                       const MakeSource& make_source) {
        ComputeProgramManager::SetupCosts& costs = manager->setupCosts;
        if (manager->IsExistComputeProgram(name)) {
            ++costs.programsShared;
        } else {
            ++costs.programsMade;
            std::string source;
            addTime(costs.source, [&] { source = make_source(); });
            addTime(costs.compiling,
                    [&] { manager->addComputeProgramFromString(source.c_str(), name); });
        }
        const std::shared_ptr<tesk::ComputeProgram> program = manager->getComputeProgram(name);
        if (program == nullptr || !program->isLinked()) lacks_program = true;
        return program;
    }

    /// Runs `work` and adds its milliseconds to `total`.
    template <typename Work>
    static void addTime(double& total, const Work& work) {
        const auto start = std::chrono::steady_clock::now();
        work();
        total += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                     .count();
    }

    /// Makes `program` current. False, with a log line, when there is nothing to dispatch: its
    /// source did not compile, and the program in use before would run instead.
    static bool useProgram(const std::shared_ptr<tesk::ComputeProgram>& program);

    tesk::ComputeProgramManager* manager;

private:
    bool lacks_program = false;
};

/// Width and height in pixels.
struct Extent {
    int width = 0;
    int height = 0;
};

/// The size of a relative shape at the manager's base size. Images are made by the rounded rule;
/// which rule sizes a dispatch is each generator's own.
TESK_TESTED Extent roundedExtent(const shape3& shape, const ComputeProgramManager& manager);
TESK_TESTED Extent truncatedExtent(const shape3& shape, const ComputeProgramManager& manager);

/// Work-group size for a problem of x by y by z invocations: 8, 8, 1 for all problems and drivers.
TESK_TESTED void chooseLocalSize(int& x, int& y, int& z, const ComputeProgramManager* manager);

/// Work groups of `local` invocations for `size` of them.
inline int groupCount(int size, int local) {
    return (size + local - 1) / local;
}

/// Slices of four channels.
inline int sliceCount(int channels) {
    return (channels + 3) / 4;
}

/// "4" for a tensor in a plain texture, "muti" for one in an array.
inline const char* channelWord(int channels) {
    return channels <= 4 ? "4" : "muti";
}

/// printf into a string, cut at the 20811 characters that a source may have.
TESK_TESTED std::string formatSource(const char* format, ...);

/// Bytes of the buffers in which sources are formatted, the closing 0 included.
constexpr int sourceBufferBytes = 20812;

}  // namespace tesk
