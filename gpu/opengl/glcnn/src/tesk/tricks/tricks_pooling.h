// Maximum and average over windows.
#pragma once

#include <memory>
#include <string>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// Base of the two, for records of ZQLayerInfo_Pooling. The window of output (x, y) begins at input
/// (x * strideX - padX, y * strideY - padY). What it covers outside the input counts as 0: a
/// maximum of negative values at the border is 0, an average always divides by the whole window.
///
/// A window that the class has no lines for is logged, and its source has no value to store and
/// does not compile. Names hold no padding: of two layers that differ in nothing else, the one set
/// up last runs with the padding of the first.
class TESK_TESTED Tricks_Pooling : public Tricks {
public:
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    virtual std::string generateSource(TricksParams& params);
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

protected:
    Tricks_Pooling(tesk::ComputeProgramManager* manager, const char* prefix)
        : Tricks(manager), prefix(prefix) {}
    /// The lines that make `out_value`; empty, with a log line, for a window without them.
    virtual std::string windowLines(const TricksParams& params) = 0;

private:
    const char* const prefix;
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

/// Windows of 2x2, 3x3, and, width first, 1x4 and 2x4.
class TESK_TESTED Tricks_Pooling_Max : public Tricks_Pooling {
public:
    explicit Tricks_Pooling_Max(tesk::ComputeProgramManager* manager)
        : Tricks_Pooling(manager, "Max") {}

protected:
    std::string windowLines(const TricksParams& params) override;
};

/// Windows of 2x2, 3x3, 4x4, 7x7 and 8x8.
class TESK_TESTED Tricks_Pooling_Avg : public Tricks_Pooling {
public:
    explicit Tricks_Pooling_Avg(tesk::ComputeProgramManager* manager)
        : Tricks_Pooling(manager, "Avg") {}

protected:
    std::string windowLines(const TricksParams& params) override;
};

}  // namespace tesk
