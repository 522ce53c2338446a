// One layer as the net sees it.
#pragma once

#include <memory>
#include <vector>

#include "glutil/image.h"
#include "types.h"

class ZQLayerInfo;

namespace tesk {

class ComputeProgramManager;

/// Chooses a generator, hands it the layer's record, calls it at run time and lowers the read counts
/// of its inputs. The type code is the one of `createOperator`.
class TESK_TESTED Operator {
public:
    Operator(int typeCode, tesk::ComputeProgramManager* manager)
        : typeCode(typeCode), manager(manager) {}
    virtual ~Operator();
    virtual void setup(ZQLayerInfo* record);
    virtual void print();
    virtual void forward(std::vector<std::shared_ptr<tesk::Image>>& inputs,
                         std::vector<std::shared_ptr<tesk::Image>>& outputs);

    Operator(const Operator&) = delete;
    Operator& operator=(const Operator&) = delete;

    int type() const { return typeCode; }
    int id() const { return layerId; }

protected:
    int typeCode;
    int layerId = 0;
    bool suppressDump = false;
    bool suppressName = false;
    tesk::ComputeProgramManager* manager;
};

}  // namespace tesk
