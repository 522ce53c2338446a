#include "benchmark_net.h"

#include <vector>

#include "layers/create_operator.h"
#include "operator.h"
#include "tesk.h"

namespace tesk {
namespace {

constexpr int benchmark_single_layer = 28;

}  // namespace

class BenchmarkNetImpl {
public:
    std::vector<std::shared_ptr<tesk::Operator>> _ops;
    bool gl_initialised = false;
    tesk::Tesk context;  ///< of its own, for the entry points
};

BenchmarkNet::BenchmarkNet() = default;

BenchmarkNet::BenchmarkNet(const BenchmarkNet& other) = default;

BenchmarkNet& BenchmarkNet::operator=(const BenchmarkNet& other) = default;

BenchmarkNet::~BenchmarkNet() = default;

bool BenchmarkNet::setupNet(tesk::TexturePool*, tesk::ComputeProgramManager* manager) {
    if (_impl == nullptr) _impl = std::make_shared<BenchmarkNetImpl>();
    if (!_impl->gl_initialised) {
        _impl->context.init_glew();
        _impl->gl_initialised = true;
    }
    const std::shared_ptr<tesk::Operator> op = createOperator(benchmark_single_layer, manager);
    op->setup(nullptr);
    _impl->_ops.push_back(op);
    return false;
}

void BenchmarkNet::forward() {
    if (_impl == nullptr) return;
    for (const std::shared_ptr<tesk::Operator>& op : _impl->_ops) {
        tesk::Operator::Images inputs;
        tesk::Operator::Images outputs;
        op->forward(inputs, outputs);
    }
}

int BenchmarkNet::operatorCount() const {
    return _impl == nullptr ? 0 : static_cast<int>(_impl->_ops.size());
}

}  // namespace tesk
