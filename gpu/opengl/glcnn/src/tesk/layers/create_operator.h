// From type codes to operators.
#pragma once

#include <memory>

#include "../types.h"

namespace tesk {

class ComputeProgramManager;
class Operator;

/// A new operator, not yet set up. Empty for 20, which has none. Any code outside 0 to 28 logs
/// "unknow type!" and ends the process with status 1.
TESK_TESTED std::shared_ptr<tesk::Operator> createOperator(int code,
                                                           tesk::ComputeProgramManager* manager);

}  // namespace tesk
