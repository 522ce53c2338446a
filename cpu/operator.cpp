#include "cpu/operator.h"

namespace TarnoCPU {

Operator::~Operator() = default;

void Operator::reset_lstm_state() {}

}  // namespace TarnoCPU
