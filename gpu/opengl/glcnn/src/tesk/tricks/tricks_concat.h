// Concatenation along the channels.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_Concatenate with 2, 3 or 5 inputs. Whole slices are moved: input k
/// begins at slice (c[0] + ... + c[k - 1] + 3) / 4, and the later input wins where two claim one
/// slice. So channels that do not fill their slices keep their padding inside the output, and of
/// channels 3, 1, 1 the second input is not read.
class TESK_TESTED Tricks_Concat : public Tricks {
public:
    explicit Tricks_Concat(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    /// Another number of inputs is reported, and the generator stays without a program.
    void setup(ZQLayerInfo* record) override;
    /// Lowers the read count of each input behind the dispatch. Fails the assertion
    /// "inputs.size() == _concat_Num", and does nothing, on another number of inputs than that of
    /// the record; does nothing, with a log line, on a number without a program.
    void compute(std::vector<std::shared_ptr<tesk::Image>>& inputs, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    /// `channels` are those of the inputs. Empty for another number of them than 2, 3 and 5.
    virtual std::string generateSource(TricksParams& params, const std::vector<int>& channels);
    virtual std::string programName(TricksParams& params, const std::vector<int>& channels, int x,
                                    int y, int z);

private:
    size_t _concat_Num = 0;
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

}  // namespace tesk
