#include "operator.h"

namespace tesk {

Operator::~Operator() = default;

void Operator::setup(ZQLayerInfo*) {}

void Operator::print() {}

void Operator::forward(std::vector<std::shared_ptr<tesk::Image>>&,
                       std::vector<std::shared_ptr<tesk::Image>>&) {}

}  // namespace tesk
