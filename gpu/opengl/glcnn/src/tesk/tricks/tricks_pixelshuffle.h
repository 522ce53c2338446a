// Space to depth and depth to space by 2, with programs of the catalogue.
#pragma once

#include <memory>

#include "group_counts.h"
#include "tricks.h"

namespace tesk {

/// Base of the two, for records of ZQLayerInfo_PixelShuffle. The factor is 2 whatever the record's
/// is; that one chooses the class.
class TESK_TESTED Tricks_PixelShuffle : public Tricks {
public:
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

protected:
    using Tricks::Tricks;
    /// `name` is the catalogue's.
    void useCatalogue(const char* name, const Extent& extent, int channels);

private:
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

/// out[4 * c + 2 * dy + dx][y][x] = in[c][2 * y + dy][2 * x + dx]
class TESK_TESTED Tricks_PixelShuffle_DownSampling : public Tricks_PixelShuffle {
public:
    explicit Tricks_PixelShuffle_DownSampling(tesk::ComputeProgramManager* manager)
        : Tricks_PixelShuffle(manager) {}
    void setup(ZQLayerInfo* record) override;
};

/// out[c][2 * y + dy][2 * x + dx] = in[4 * c + 2 * dy + dx][y][x]
class TESK_TESTED Tricks_PixelShuffle_UpSampling : public Tricks_PixelShuffle {
public:
    explicit Tricks_PixelShuffle_UpSampling(tesk::ComputeProgramManager* manager)
        : Tricks_PixelShuffle(manager) {}
    void setup(ZQLayerInfo* record) override;
};

}  // namespace tesk
