#include "cpu/option.h"

#include "platform/assertion.h"

namespace TarnoCPU {
namespace {

Option& default_option() {
    static Option option;
    return option;
}

}  // namespace

const Option& get_default_option() {
    return default_option();
}

int set_default_option(const Option& opt) {
    if (opt.num_threads > 0) {
        default_option() = opt;
        return 0;
    }
    // The text keeps its placeholder: an assertion text is a constant.
    TN_ASSERT_AT(false && "invalid option num_threads %d\n", "option", 25);
    return -1;
}

}  // namespace TarnoCPU
