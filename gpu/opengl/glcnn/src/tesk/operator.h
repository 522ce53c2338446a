// One layer as the net sees it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "glutil/image.h"
#include "tricks/tricks.h"
#include "types.h"

class ZQLayerInfo;

namespace tesk {

class ComputeProgramManager;

/// Chooses a generator, hands it the layer's record, calls it at run time and lowers the read
/// counts of its inputs. The type code is the one of `createOperator`.
class TESK_TESTED Operator {
public:
    using Images = std::vector<std::shared_ptr<tesk::Image>>;

    Operator(int typeCode, tesk::ComputeProgramManager* manager)
        : typeCode(typeCode), manager(manager) {}
    virtual ~Operator();
    /// Chooses the generator and sets it up, in place of an earlier one. `record` is not kept.
    virtual void setup(ZQLayerInfo* record);
    virtual void print();
    /// Needs the context current. Lowers the read count of every input behind its dispatches.
    virtual void forward(Images& inputs, Images& outputs);

    Operator(const Operator&) = delete;
    Operator& operator=(const Operator&) = delete;

    int type() const { return typeCode; }
    int id() const { return layerId; }
    /// Whether `record` is of the class that this operator reads.
    bool takes(const ZQLayerInfo& record) const;
    /// Whether the last `setup` had a record of that class, with numbers that a generator is for.
    bool isSetUp() const { return setUp; }
    /// Null before `setup`, and for a layer without one.
    const Tricks* generator() const { return tricks.get(); }

    // For debugging. Nothing calls them.

    /// The first keeps `dumpFileName` empty, the second `printName` silent. Both false at start.
    void setDebugSwitches(bool noDump, bool noName);
    /// Logs the layer's name. Ends the process for a type code above 26, which has none.
    void printName() const;
    /// Logs the time of the layer at place `index` in the run.
    void printTime(int index, int microseconds) const;
    /// Where a dump of the layer's output would go; empty for a type code without a dump.
    std::string dumpFileName() const;

protected:
    /// Stores the layer's id. False, with a log line, for a record of another class, and the
    /// operator then has no generator.
    bool take(const ZQLayerInfo* record);
    /// Logs why there is no generator for a record that was taken.
    void refuse(const char* expected, int found);

    template <typename Generator>
    void use(ZQLayerInfo* record) {
        tricks = std::make_unique<Generator>(manager);
        tricks->setup(record);
        reportLackingProgram();
    }
    /// `tricksMode` 0 asks for weights at constant indices, all other modes for the basic form.
    template <typename ConstantIndex, typename Basic>
    void useByMode(ZQLayerInfo* record) {
        if (manager->tricksMode == 0) {
            use<ConstantIndex>(record);
        } else {
            use<Basic>(record);
        }
    }

    /// Output i from input i.
    void forwardOneToOne(Images& inputs, Images& outputs);
    /// The first output from the first input.
    void forwardFirst(Images& inputs, Images& outputs);

    int typeCode;
    int layerId = 0;
    bool suppressDump = false;
    bool suppressName = false;
    tesk::ComputeProgramManager* manager;
    std::unique_ptr<Tricks> tricks;

private:
    /// Logs the layer whose generator has a program that does not link.
    void reportLackingProgram() const;

    bool setUp = false;
};

}  // namespace tesk
