#include "modelkit/onnx/evaluator_windows.h"

#include <algorithm>
#include <string>

namespace modelkit::onnx::evaluation {

namespace {

// A list with one entry for each axis, all `otherwise` when it is absent.
Dims per_axis(const Call& call, const char* name, size_t count, int64_t least, int64_t otherwise) {
    const Attribute* found = call.node.find(name, Attribute::Kind::Ints);
    if (found == nullptr) return Dims(count, otherwise);
    const Dims& list = found->ints;
    call.require(list.size() == count, "attribute \"" + std::string(name) + "\" is " +
                                           text_of(list) + ", expected " + std::to_string(count) +
                                           " numbers");
    for (const int64_t value : list) {
        call.require(value >= least && value <= MOST_PIXELS,
                     "attribute \"" + std::string(name) + "\" is " + text_of(list) +
                         ", expected numbers of at least " + std::to_string(least));
    }
    return list;
}

}  // namespace

Planes planes(const Call& call, const Tensor& tensor) {
    const size_t rank = tensor.dims.size();
    if (rank != 3 && rank != 4) {
        call.refuse("the input has shape " + text_of(tensor.dims) +
                    ", expected batch, channels and one or two spatial axes");
    }
    return {tensor.dims[0], tensor.dims[1], Dims(tensor.dims.begin() + 2, tensor.dims.end())};
}

Windows taps(const Call& call, const Dims& spatial, const Dims& kernel) {
    const size_t axes = spatial.size();
    Dims sizes = kernel;
    if (kernel.empty()) {
        call.require(call.node.find("kernel_shape", Attribute::Kind::Ints) != nullptr,
                     "has no attribute \"kernel_shape\"");
        sizes = per_axis(call, "kernel_shape", axes, 1, 1);
    } else {
        call.require(call.node.integers("kernel_shape", kernel) == kernel,
                     "attribute \"kernel_shape\" is " +
                         text_of(call.node.integers("kernel_shape")) + ", the weights have " +
                         text_of(kernel));
    }
    const Dims strides = per_axis(call, "strides", axes, 1, 1);
    const Dims dilations = per_axis(call, "dilations", axes, 1, 1);
    Windows windows;
    for (size_t i = 0; i < axes; ++i) {
        WindowAxis& axis = windows[2 - axes + i];
        axis.in = spatial[i];
        call.require(axis.in >= 1, "the input has no pixels");
        axis.kernel = sizes[i];
        axis.stride = strides[i];
        axis.dilation = dilations[i];
        call.require(axis.kernel >= 1 && axis.kernel <= MOST_PIXELS / axis.dilation,
                     "a kernel of " + std::to_string(axis.kernel) + " with dilation " +
                         std::to_string(axis.dilation) + " is not possible");
    }
    return windows;
}

void read_pads(const Call& call, Windows& windows, size_t axes) {
    const Dims pads = per_axis(call, "pads", 2 * axes, 0, 0);
    for (size_t i = 0; i < axes; ++i) {
        windows[2 - axes + i].pad_begin = pads[i];
        windows[2 - axes + i].pad_end = pads[axes + i];
    }
}

void place_windows(const Call& call, Windows& windows, size_t axes, bool may_ceil) {
    const std::string mode = call.node.text("auto_pad", "NOTSET");
    if (mode == "NOTSET") {
        read_pads(call, windows, axes);
    } else {
        call.require(mode == "VALID" || mode == "SAME_UPPER" || mode == "SAME_LOWER",
                     "attribute \"auto_pad\" is " + in_quotes(mode));
    }
    const bool same = mode == "SAME_UPPER" || mode == "SAME_LOWER";
    for (size_t i = 2 - axes; i < 2; ++i) {
        WindowAxis& axis = windows[i];
        if (same) {
            axis.out = (axis.in + axis.stride - 1) / axis.stride;
            const int64_t total =
                std::max<int64_t>(0, (axis.out - 1) * axis.stride + axis.extent() - axis.in);
            axis.pad_begin = mode == "SAME_UPPER" ? total / 2 : total - total / 2;
            axis.pad_end = total - axis.pad_begin;
            continue;
        }
        const int64_t room = axis.in + axis.pad_begin + axis.pad_end - axis.extent();
        if (room < 0) {
            call.refuse("a window of " + std::to_string(axis.extent()) +
                        " pixels does not fit into " + std::to_string(axis.in) + " with padding " +
                        std::to_string(axis.pad_begin) + " and " + std::to_string(axis.pad_end));
        }
        axis.out = room / axis.stride + 1;
        if (may_ceil && call.node.integer("ceil_mode", 0) != 0 && room % axis.stride != 0) {
            // A window that begins behind the input has nothing to take the maximum or mean of:
            // some implementations drop it, some fill it.
            call.require(axis.out * axis.stride < axis.in + axis.pad_begin,
                         "\"ceil_mode\" makes a window that begins behind the input");
            ++axis.out;
        }
    }
}

Dims dims_of(int64_t batch, int64_t channels, const Windows& windows, size_t axes) {
    Dims dims = {batch, channels};
    for (size_t i = 2 - axes; i < 2; ++i) dims.push_back(windows[i].out);
    return dims;
}

}  // namespace modelkit::onnx::evaluation
