#include "cpu/configprinter.h"

#include <cstdarg>
#include <cstdio>

namespace TarnoCPU {
namespace {

// Channels that lie side by side in a layout.
int channel_packing(TensorShape::Layout layout) {
    return layout == TensorShape::C8HW8 ? 8 : layout == TensorShape::C4HW4 ? 4 : 1;
}

// Lines longer than the buffer are cut: 999 characters hold every layer there is.
std::string formatted(const char* format, ...) {
    char buffer[1000];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

}  // namespace

ConfigPrinter::ConfigPrinter() : index(0), last_model_id(-1) {}

ConfigPrinter::~ConfigPrinter() = default;

void ConfigPrinter::add_header() {
    stream << "static const std::vector<TarnoCPU::LayerInferenceConfig> model_inference_config = "
           << std::endl
           << "{" << std::endl;
}

void ConfigPrinter::add_tail() {
    stream << "};" << std::endl;
}

void ConfigPrinter::layer_stats(const Layer* layer, const Mat& bottom, Mat& top, double, double) {
    const int line = index++;
    const int in_packing = channel_packing(bottom.shape.layout);
    const int out_packing = channel_packing(top.shape.layout);
    const std::string comment =
        formatted(" // Index %3d Model ID %3d %-30s In CHW(%3d, %3d, %3d), Out CHW(%3d, %3d, %3d)",
                  line, layer->id, layer->type.c_str(), bottom.shape.c * in_packing, bottom.shape.h,
                  bottom.shape.w / in_packing, top.shape.c * out_packing, top.shape.h,
                  top.shape.w / out_packing);
    // The virtual name is not const; a layer is not changed by it.
    const std::string name = const_cast<Layer*>(layer)->operator_name();
    // 71 characters, or 72 and more with a name: the texts of tables in use are made so.
    const std::string creator = name == "nullptr"
                                    ? formatted("%71s", name.c_str())
                                    : formatted("TarnoCPU::%45s_operator_creator", name.c_str());
    stream << formatted("{%s, %2u, %2d}, %s", creator.c_str(), top.shape.frac_bits,
                        layer->inference_config.weight_frac_bits, comment.c_str())
           << std::endl;
}

std::string ConfigPrinter::get_config_string() const {
    return stream.str();
}

}  // namespace TarnoCPU
