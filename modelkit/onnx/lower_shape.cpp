// What divides, moves, pads and cuts tensors.
#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "modelkit/onnx/half_factors.h"
#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

/// As the file numbers the element types.
std::string integral_name(int64_t type) {
    const std::pair<int64_t, const char*> names[] = {
        {2, "uint8"}, {3, "int8"}, {4, "uint16"},  {5, "int16"},   {6, "int32"},
        {7, "int64"}, {9, "bool"}, {12, "uint32"}, {13, "uint64"},
    };
    for (const auto& [number, name] : names) {
        if (number == type) return name;
    }
    return "element type " + std::to_string(type);
}

}  // namespace

void Lowering::hand_on() {
    if (node().op_type == "Dropout") {
        require(!node().has_output(1) || !uses.is_used(node().outputs[1]),
                "the mask of a dropout is not supported");
        const Tensor* training = constant(2);
        require(!node().has_input(2) ||
                    (training != nullptr && training->size() == 1 && training->integer(0) == 0),
                "a dropout that is not in training expected");
    }
    if (node().op_type == "Cast") {
        const int64_t to = node().integer("to", 0);
        require(
            to == 1 || to == 10 || to == 11 || to == 16,
            "a cast to numbers with a fraction expected: the engines have no " + integral_name(to));
    }
    give(value(0).dims, value(0).blob);
}

void Lowering::reshape() {
    const Dims& from = value(0).dims;
    Dims dims = required(1, "a shape").integers();
    const bool zero_is_size = node().integer("allowzero", 0) != 0;
    int64_t known = 1;
    size_t open = dims.size();
    for (size_t i = 0; i < dims.size(); ++i) {
        if (dims[i] == 0 && !zero_is_size) {
            require(i < from.size(),
                    "a shape that copies a dimension of the input expected, found " +
                        text_of(dims) + " of " + text_of(from));
            dims[i] = from[i];
        }
        if (dims[i] == -1) {
            require(open == dims.size(),
                    "one open dimension at most expected, found " + text_of(dims));
            open = i;
        } else {
            require(dims[i] > 0 && dims[i] <= (int64_t{1} << 40) / known,
                    "a shape of the input's size expected, found " + text_of(dims));
            known *= dims[i];
        }
    }
    if (open < dims.size()) dims[open] = element_count(from) / known;
    alias(dims);
}

void Lowering::flatten() {
    const Dims& from = value(0).dims;
    const int64_t given = node().integer("axis", 1);
    const auto rank = static_cast<int64_t>(from.size());
    require(given >= -rank && given <= rank, "an axis of the input expected, found " +
                                                 std::to_string(given) + " of " + text_of(from));
    const int64_t axis = given < 0 ? given + rank : given;
    Dims dims = {1, 1};
    for (int64_t i = 0; i < rank; ++i) dims[i < axis ? 0 : 1] *= from[static_cast<size_t>(i)];
    alias(dims);
}

void Lowering::squeeze() {
    const Dims& from = value(0).dims;
    Dims axes = node().integers("axes");
    if (graph.opset >= 13 && node().has_input(1)) axes = required(1, "axes").integers();
    std::set<size_t> gone;
    for (const int64_t axis : axes) gone.insert(axis_of(axis, from.size()));
    Dims dims;
    for (size_t i = 0; i < from.size(); ++i) {
        const bool goes = axes.empty() ? from[i] == 1 : gone.count(i) != 0;
        require(!goes || from[i] == 1,
                "dimensions of 1 to squeeze expected, found " + text_of(from));
        if (!goes) dims.push_back(from[i]);
    }
    alias(dims);
}

void Lowering::unsqueeze() {
    const Dims& from = value(0).dims;
    const Dims axes = graph.opset >= 13 ? required(1, "axes").integers() : node().integers("axes");
    std::set<size_t> added;
    require(axes.size() <= 8, "at most 8 axes expected, found " + std::to_string(axes.size()));
    for (const int64_t axis : axes) {
        require(added.insert(axis_of(axis, from.size() + axes.size())).second,
                "each axis once expected, found " + text_of(axes));
    }
    Dims dims;
    size_t next = 0;
    for (size_t i = 0; i < from.size() + axes.size(); ++i) {
        dims.push_back(added.count(i) != 0 ? 1 : from[next++]);
    }
    alias(dims);
}

void Lowering::transpose() {
    const Value& data = value(0);
    const size_t rank = data.dims.size();
    Dims reverse;
    for (size_t i = rank; i-- > 0;) reverse.push_back(static_cast<int64_t>(i));
    const Dims order = node().integers("perm", reverse);
    require(order.size() == rank, "a permutation of all dimensions expected, found " +
                                      text_of(order) + " of " + text_of(data.dims));
    Dims dims;
    std::vector<size_t> kept;  // the axes that are more than one long, in their new order
    std::set<size_t> seen;
    for (const int64_t axis : order) {
        require(axis >= 0 && axis < static_cast<int64_t>(rank) &&
                    seen.insert(static_cast<size_t>(axis)).second,
                "a permutation of all dimensions expected, found " + text_of(order));
        dims.push_back(data.dims[static_cast<size_t>(axis)]);
        if (dims.back() != 1) kept.push_back(static_cast<size_t>(axis));
    }
    if (std::is_sorted(kept.begin(), kept.end())) {
        give(dims, data.blob);
        return;
    }
    const Extent& size = data.blob.size;
    // Blocks of pixels into channels and back, as exporters spell them out.
    if (rank == 6 && data.dims[0] == 1) {
        const Dims& d = data.dims;
        const bool square =
            (d[2] == d[3] && size == Extent{static_cast<int>(d[1] * d[2] * d[3]),
                                            static_cast<int>(d[4]), static_cast<int>(d[5])});
        if (order == Dims{0, 1, 4, 2, 5, 3} && square) {
            give(dims, emitter.pixel_shuffle(data.blob, static_cast<int>(d[2]), true));
            return;
        }
        const bool blocks =
            (d[3] == d[5] && size == Extent{static_cast<int>(d[1]), static_cast<int>(d[2] * d[3]),
                                            static_cast<int>(d[4] * d[5])});
        if (order == Dims{0, 1, 3, 5, 2, 4} && blocks) {
            give(dims, emitter.pixel_shuffle(data.blob, static_cast<int>(d[3]), false));
            return;
        }
    }
    // Channels in another order: the last axes stay, and hold a channel.
    size_t fixed = rank;
    int64_t inner = 1;
    while (fixed > 0 && inner < int64_t{size.h} * size.w) {
        --fixed;
        if (order[fixed] != static_cast<int64_t>(fixed)) break;
        inner *= data.dims[fixed];
    }
    require(inner == int64_t{size.h} * size.w,
            "a permutation that leaves pixels where they are, or blocks of them into channels and "
            "back, expected, found " +
                text_of(order) + " of " + text_of(data.dims));
    const size_t outer = fixed;
    Dims steps(outer, 1);
    for (size_t i = outer; i-- > 1;) steps[i - 1] = steps[i] * data.dims[i];
    for (size_t i = 0; i < outer; ++i) {
        require(order[i] < static_cast<int64_t>(outer),
                "pixels that stay in their channels expected, found " + text_of(order) + " of " +
                    text_of(data.dims));
    }
    std::vector<int> channels(static_cast<size_t>(size.c));
    for (size_t i = 0; i < channels.size(); ++i) {
        auto rest = static_cast<int64_t>(i);
        int64_t from = 0;
        for (size_t k = outer; k-- > 0;) {
            from += rest % dims[k] * steps[static_cast<size_t>(order[k])];
            rest /= dims[k];
        }
        channels[i] = static_cast<int>(from);
    }
    give(dims, pick_channels(data.blob, channels));
}

// Zeros around the tensor, and the constant painted over them: a picture of it with zeros inside is
// added, so that the pixels inside keep every digit. The picture is value - value * ones, the ones
// padded with zeros like the tensor. Two halves carry the constant.
Blob Lowering::bordered(const Blob& blob, int top, int left, int bottom, int right, double value,
                        double& used) {
    Affine exact;
    const Blob ones = emitter.affine(blob, {{0.0}, {1.0}}, exact);
    const Blob inside = pad_or_crop(ones, top, left, bottom, right);
    std::vector<Blob> parts = {pad_or_crop(blob, top, left, bottom, right)};
    const double coarse = as_half(value);
    const double fine = as_half(value - coarse);
    for (const double part : {coarse, fine}) {
        if (part != 0) parts.push_back(emitter.affine(inside, {{-part}, {part}}, exact));
    }
    used = coarse + fine;
    Blob result = parts.size() > 1 ? emitter.eltwise(parts, false) : parts[0];
    result.range = blob.range.with(used);
    return result;
}

void Lowering::pad() {
    const Value& data = value(0);
    const std::optional<PadNode> found = pad_of(graph, node());
    const size_t rank = data.dims.size();
    if (!found) {
        const Tensor* pads = constant(1);
        refuse("constant pads for all axes expected, found " +
               (graph.opset < 11  ? text_of(node().integers("pads"))
                : pads == nullptr ? std::string("computed ones")
                                  : text_of(pads->integers())));
    }
    require(
        found->pads.size() == 2 * rank,
        "pads for " + std::to_string(rank) + " dimensions expected, found " + text_of(found->pads));
    const std::string& mode = found->mode;
    require(mode == "constant" || mode == "edge" || mode == "reflect",
            "mode constant, edge or reflect expected, found " + in_quotes(mode));
    Dims dims = data.dims;
    bool nothing = true;
    for (size_t i = 0; i < rank; ++i) {
        dims[i] += found->pads[i] + found->pads[rank + i];
        require(dims[i] >= 1, "at least one pixel to stay expected, found pads " +
                                  text_of(found->pads) + " of " + text_of(data.dims));
        nothing = nothing && found->pads[i] == 0 && found->pads[rank + i] == 0;
    }
    if (nothing) {
        give(dims, data.blob);
        return;
    }
    require(rank >= 3, "a tensor with rows or columns expected, found " + text_of(data.dims));
    require(found->pads[0] == 0 && found->pads[1] == 0 && found->pads[rank] == 0 &&
                found->pads[rank + 1] == 0,
            "pads for rows and columns only expected, found " + text_of(found->pads));
    Blob blob = map_of(data);
    const auto begin = [&](bool rows) {
        return rank == 3 && rows ? 0 : static_cast<int>(found->pads[rank - (rows ? 2 : 1)]);
    };
    const auto end = [&](bool rows) {
        return rank == 3 && rows ? 0 : static_cast<int>(found->pads[2 * rank - (rows ? 2 : 1)]);
    };
    const int top = begin(true), left = begin(false), bottom = end(true), right = end(false);
    if (mode != "constant") {
        for (const bool rows : {true, false}) {
            const int count = rows ? blob.size.h : blob.size.w;
            std::vector<int> lines;
            for (int i = -begin(rows); i < count + end(rows); ++i) {
                int from = std::clamp(i, 0, count - 1);
                if (mode == "reflect") from = i < 0 ? -i : i >= count ? 2 * count - 2 - i : i;
                require(from >= 0 && from < count,
                        "a reflection of at most the tensor expected, found pads " +
                            text_of(found->pads) + " of " + text_of(data.dims));
                lines.push_back(from);
            }
            if (begin(rows) != 0 || end(rows) != 0) blob = gather_lines(blob, rows, lines);
        }
        give(dims, blob);
        return;
    }
    if (found->value == 0) {
        // The border of the engine's maximum pooling holds zeros.
        const std::optional<size_t> reader = uses.sole_reader(node().outputs[0]);
        const bool even = rank == 4 && top > 0 && top == left && top == bottom && top == right;
        if (reader && even && graph.nodes[*reader].op_type == "MaxPool") {
            const Node& pool = graph.nodes[*reader];
            const Dims pads = pool.integers("pads", Dims(4, 0));
            const bool bare =
                std::all_of(pads.begin(), pads.end(), [](int64_t v) { return v == 0; }) &&
                pool.text("auto_pad", "NOTSET") == "NOTSET" && pool.integer("ceil_mode", 0) == 0;
            const Dims kernel = pool.integers("kernel_shape");
            if (bare && kernel.size() == 2 && kernel[0] > top && kernel[1] > top) {
                made[node().outputs[0]] = Value{dims, blob, top};
                return;
            }
        }
        give(dims, pad_or_crop(blob, top, left, bottom, right));
        return;
    }
    require(std::fabs(found->value) <= 65504.0,
            "a constant of at most 65504, the largest half, or -inf for a MaxPool behind that has "
            "no other reader and no ceil_mode, expected, found " +
                number_text(found->value));
    double used = 0;
    give(dims, bordered(blob, top, left, bottom, right, found->value, used));
    if (graph.opset < 11) {
        show_number("value", used);
    } else {
        show_tensor(2, Tensor::of_doubles(required(2, "a constant").dims, {used}));
    }
}

Blob Lowering::slice_axis(const Blob& blob, const Dims& dims, size_t axis, int64_t start,
                          int64_t count, int64_t step) {
    if (start == 0 && count == dims[axis] && step == 1) return blob;
    const size_t rank = dims.size();
    require(axis >= 1, "a batch of 1 to stay expected, found a cut of axis 0 of " + text_of(dims));
    if (axis == 1) {
        std::vector<int> channels;
        for (int64_t i = 0; i < count; ++i) channels.push_back(static_cast<int>(start + i * step));
        return pick_channels(blob, channels);
    }
    require(step >= 1, "steps forward in rows and columns expected, found " + std::to_string(step));
    const bool rows = rank == 4 && axis == 2;
    const int before = static_cast<int>(start);
    const int behind = static_cast<int>(dims[axis] - (start + (count - 1) * step) - 1);
    Blob result = rows ? pad_or_crop(blob, -before, 0, -behind, 0)
                       : pad_or_crop(blob, 0, -before, 0, -behind);
    if (step == 1) return result;
    Window thin;
    (rows ? thin.stride_h : thin.stride_w) = small(step, "a step");
    const WeightRows ones = all_of(static_cast<size_t>(result.size.c), 1.0f);
    const Range range = result.range;
    result = emitter.depthwise(result, 1, thin, ones, {});
    result.range = range;
    return result;
}

void Lowering::slice() {
    const Value& data = value(0);
    const size_t rank = data.dims.size();
    Dims starts, ends, axes, steps;
    if (graph.opset < 10) {
        starts = node().integers("starts");
        ends = node().integers("ends");
        axes = node().integers("axes");
    } else {
        starts = required(1, "starts").integers();
        ends = required(2, "ends").integers();
        if (node().has_input(3)) axes = required(3, "axes").integers();
        if (node().has_input(4)) steps = required(4, "steps").integers();
    }
    if (axes.empty()) {
        for (size_t i = 0; i < starts.size(); ++i) axes.push_back(static_cast<int64_t>(i));
    }
    if (steps.empty()) steps.assign(starts.size(), 1);
    require(starts.size() == ends.size() && starts.size() == axes.size() &&
                starts.size() == steps.size(),
            "as many ends, axes and steps as starts expected, found " +
                std::to_string(ends.size()) + ", " + std::to_string(axes.size()) + " and " +
                std::to_string(steps.size()) + " for " + std::to_string(starts.size()));
    struct Cut {
        size_t axis;
        int64_t start;
        int64_t count;
        int64_t step;
    };
    std::vector<Cut> cuts;
    Dims dims = data.dims;
    std::set<size_t> seen;
    for (size_t i = 0; i < starts.size(); ++i) {
        const size_t axis = axis_of(axes[i], rank);
        require(seen.insert(axis).second, "each axis once expected, found " + text_of(axes));
        const int64_t size = dims[axis];
        const int64_t step = steps[i];
        require(step >= 1 && step <= 65535,
                "steps forward expected, found " + std::to_string(step));
        const auto bounded = [size](int64_t v) {
            return std::clamp<int64_t>(v < 0 ? std::max(v, -size) + size : v, 0, size);
        };
        const int64_t start = bounded(starts[i]);
        const int64_t end = bounded(ends[i]);
        require(end > start, "at least one element to stay expected, found " +
                                 std::to_string(start) + " to " + std::to_string(end) + " of " +
                                 std::to_string(size));
        const int64_t count = (end - start + step - 1) / step;
        dims[axis] = count;
        if (count != size) cuts.push_back({axis, start, count, step});
    }
    if (cuts.size() == 1 && cuts[0].count == 1) {
        give(dims, one_of(data, cuts[0].axis, cuts[0].start));
        return;
    }
    Blob blob = map_of(data);
    Dims left = data.dims;
    for (const Cut& cut : cuts) {
        blob = slice_axis(blob, left, cut.axis, cut.start, cut.count, cut.step);
        left[cut.axis] = cut.count;
    }
    give(dims, blob);
}

// One element along an axis. Outermost it is as good as a channel, whatever the other dimensions.
Blob Lowering::one_of(const Value& data, size_t axis, int64_t index) {
    const Blob& blob = data.blob;
    const Extent& size = blob.size;
    const int64_t count = data.dims[axis];
    if (count == 1) return blob;
    const auto at = data.dims.begin() + static_cast<std::ptrdiff_t>(axis);
    if (element_count({data.dims.begin(), at}) != 1) {
        return slice_axis(map_of(data), data.dims, axis, index, 1, 1);
    }
    const int64_t length = element_count({at + 1, data.dims.end()});
    const int64_t before = index * length;
    if (size.c == 1 && size.h == 1) {
        return pad_or_crop(blob, 0, static_cast<int>(-before), 0,
                           static_cast<int>(before + length - count * length));
    }
    if (size.c == 1 && size.h == count) {
        const int64_t behind = count - 1 - index;
        return pad_or_crop(blob, static_cast<int>(-index), 0, static_cast<int>(-behind), 0);
    }
    if (size.h == 1 && size.w == 1) {
        std::vector<int> channels;
        for (int64_t i = 0; i < length; ++i) channels.push_back(static_cast<int>(before + i));
        return pick_channels(blob, channels);
    }
    return pick_channels(rows_of(blob, small(count, "elements")), {static_cast<int>(index)});
}

void Lowering::gather() {
    const Value& data = value(0);
    const size_t axis = axis_of(node().integer("axis", 0), data.dims.size());
    const std::string expected = "one constant index along axis " + std::to_string(axis) + " of " +
                                 text_of(data.dims) + " expected, found ";
    const Tensor* indices = constant(1);
    if (indices == nullptr) refuse(expected + "computed indices");
    require(is_integral(indices->type) && indices->size() == 1,
            expected + std::to_string(indices->size()) + " of " + name_of(indices->type) + ": " +
                text_of(indices->integers()));
    const int64_t count = data.dims[axis];
    const int64_t given = indices->integer(0);
    require(given >= -count && given < count, expected + std::to_string(given));
    // The dimensions of the indices, none of a scalar, stand in the axis' place.
    Dims dims = data.dims;
    const auto at = dims.begin() + static_cast<std::ptrdiff_t>(axis);
    dims.insert(dims.erase(at), indices->dims.begin(), indices->dims.end());
    give(dims, one_of(data, axis, given < 0 ? given + count : given));
}

void Lowering::split() {
    const Value& data = value(0);
    const size_t axis = axis_of(node().integer("axis", 0), data.dims.size());
    Dims parts = node().integers("split");
    if (graph.opset >= 13 && node().has_input(1)) parts = required(1, "a split").integers();
    const auto outputs = static_cast<int64_t>(node().outputs.size());
    if (parts.empty()) {
        require(data.dims[axis] % outputs == 0, "parts of one size expected, found " +
                                                    std::to_string(outputs) + " of " +
                                                    std::to_string(data.dims[axis]));
        parts.assign(node().outputs.size(), data.dims[axis] / outputs);
    }
    require(parts.size() == node().outputs.size(), "one size for each output expected, found " +
                                                       text_of(parts) + " for " +
                                                       std::to_string(outputs));
    const Blob blob = map_of(data);
    const Dims from = data.dims;
    int64_t start = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
        require(parts[i] >= 1 && parts[i] <= from[axis] - start,
                "parts that make up " + std::to_string(from[axis]) + " expected, found " +
                    text_of(parts));
        Dims dims = from;
        dims[axis] = parts[i];
        if (node().has_output(i) && uses.is_used(node().outputs[i])) {
            give(node().outputs[i], dims, slice_axis(blob, from, axis, start, parts[i], 1));
        }
        start += parts[i];
    }
    require(start == from[axis], "parts that make up " + std::to_string(from[axis]) +
                                     " expected, found " + text_of(parts));
}

}  // namespace modelkit::onnx
