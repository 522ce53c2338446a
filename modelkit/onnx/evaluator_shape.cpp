#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

// The same values in another shape of as many elements.
void reshaped(Call& call, Dims dims) {
    const Tensor& x = call.input(0);
    if (element_count(dims) != static_cast<int64_t>(x.size())) {
        call.refuse("the input " + text_of(x.dims) + " does not fit the shape " + text_of(dims));
    }
    call.give(call.placed(x, std::move(dims), [](const auto& from, auto& to) { to = from; }));
}

// The elements of the first input at `start` plus the offsets of a walk over `dims`.
void picked(Call& call, Dims dims, const Dims& strides, int64_t start) {
    call.give(call.placed(call.input(0), dims, [&](const auto& from, auto& to) {
        size_t next = 0;
        walk<1>(dims, {strides}, [&](const std::array<int64_t, 1>& at) {
            to[next++] = from[static_cast<size_t>(start + at[0])];
        });
    }));
}

std::set<size_t> axes_of(const Call& call, const Dims& list, size_t rank) {
    std::set<size_t> axes;
    for (const int64_t axis : list) {
        call.require(axes.insert(call.axis(axis, rank)).second,
                     "axis " + std::to_string(axis) + " is given twice");
    }
    return axes;
}

}  // namespace

void identity(Call& call) {
    reshaped(call, call.input(0).dims);
}

void dropout(Call& call) {
    if (call.has(2)) {
        call.require(call.scalar(2) == 0, "input 2 sets the training mode, which is random");
    }
    identity(call);
    if (call.outputs.size() > 1) {
        const Dims& dims = call.input(0).dims;
        call.outputs[1] = Tensor::of_integers(dims, call.room<int64_t>(dims, 1), ElementType::Bool);
    }
}

void constant(Call& call) {
    using Kind = Attribute::Kind;
    call.require(call.node.attributes.size() == 1, "expected one attribute");
    const Attribute& value = call.node.attributes.begin()->second;
    switch (value.kind) {
        case Kind::Tensor:
            call.give(call.placed(value.tensor, value.tensor.dims,
                                  [](const auto& from, auto& to) { to = from; }));
            break;
        case Kind::Float:
            call.give({}, value.floats);
            break;
        case Kind::Floats:
            call.give({static_cast<int64_t>(value.floats.size())}, value.floats);
            break;
        case Kind::Int:
            call.give(Tensor::of_integers({}, value.ints));
            break;
        case Kind::Ints:
            call.give(Tensor::of_integers({static_cast<int64_t>(value.ints.size())}, value.ints));
            break;
        default:
            call.refuse("attribute " + in_quotes(call.node.attributes.begin()->first) +
                        " is not supported");
    }
}

void constant_of_shape(Call& call) {
    const Dims dims = call.list(0);
    const Attribute* value = call.node.find("value", Attribute::Kind::Tensor);
    if (value == nullptr) return call.give(dims, call.room<double>(dims));
    call.require(
        value->tensor.size() == 1,
        "attribute \"value\" has shape " + text_of(value->tensor.dims) + ", expected one element");
    call.give(call.moved(value->tensor, dims, [](const auto& from, auto& to) {
        std::fill(to.begin(), to.end(), from[0]);
    }));
}

void shape(Call& call) {
    const Dims& dims = call.input(0).dims;
    const auto rank = static_cast<int64_t>(dims.size());
    const auto place = [rank](int64_t axis) {
        if (axis < 0) axis = axis < -rank ? 0 : axis + rank;
        return std::min(axis, rank);
    };
    const int64_t start = place(call.node.integer("start", 0));
    const int64_t end = std::max(start, place(call.node.integer("end", rank)));
    call.give(Tensor::of_integers({end - start}, Dims(dims.begin() + start, dims.begin() + end)));
}

void size(Call& call) {
    call.give(Tensor::of_integers({}, {static_cast<int64_t>(call.input(0).size())}));
}

void reshape(Call& call) {
    const Tensor& x = call.input(0);
    Dims dims = call.list(1);
    const bool keeps_zero = call.node.integer("allowzero", 0) != 0;
    size_t open = dims.size();
    for (size_t i = 0; i < dims.size(); ++i) {
        if (dims[i] == 0 && !keeps_zero) {
            call.require(i < x.dims.size(), "dimension " + std::to_string(i) +
                                                " is to be kept, the input has shape " +
                                                text_of(x.dims));
            dims[i] = x.dims[i];
        } else if (dims[i] == -1) {
            call.require(open == dims.size(), "two dimensions are left open");
            open = i;
        }
    }
    if (open < dims.size()) {
        dims[open] = 1;
        const int64_t known = element_count(dims);
        const auto all = static_cast<int64_t>(x.size());
        call.require(
            known > 0 && all % known == 0,
            "the input " + text_of(x.dims) + " does not fit the shape " + text_of(call.list(1)));
        dims[open] = all / known;
    }
    reshaped(call, std::move(dims));
}

void flatten(Call& call) {
    const Dims& dims = call.input(0).dims;
    const int64_t given = call.node.integer("axis", 1);
    const auto rank = static_cast<int64_t>(dims.size());
    call.require(given <= rank && given >= (call.opset >= 11 ? -rank : 0),
                 "axis " + std::to_string(given) + " of a tensor with " + std::to_string(rank) +
                     " dimensions");
    const int64_t axis = given < 0 ? given + rank : given;
    int64_t rows = 1;
    int64_t columns = 1;
    for (int64_t i = 0; i < rank; ++i) (i < axis ? rows : columns) *= dims[static_cast<size_t>(i)];
    reshaped(call, {rows, columns});
}

namespace {

void squeeze_axes(Call& call, const std::set<size_t>& axes) {
    const Dims& dims = call.input(0).dims;
    Dims kept;
    for (size_t i = 0; i < dims.size(); ++i) {
        if (axes.count(i) == 0) {
            kept.push_back(dims[i]);
        } else {
            call.require(dims[i] == 1,
                         "axis " + std::to_string(i) + " of " + text_of(dims) + " is not 1");
        }
    }
    reshaped(call, kept);
}

void squeeze_all(Call& call) {
    Dims kept = call.input(0).dims;
    kept.erase(std::remove(kept.begin(), kept.end(), 1), kept.end());
    reshaped(call, kept);
}

void unsqueeze_axes(Call& call, const Dims& list) {
    const Dims& dims = call.input(0).dims;
    const size_t rank = dims.size() + list.size();
    const std::set<size_t> axes = axes_of(call, list, rank);
    Dims result;
    size_t next = 0;
    for (size_t i = 0; i < rank; ++i) result.push_back(axes.count(i) != 0 ? 1 : dims[next++]);
    reshaped(call, result);
}

}  // namespace

void squeeze_by_attribute(Call& call) {
    const Attribute* axes = call.node.find("axes", Attribute::Kind::Ints);
    if (axes == nullptr) return squeeze_all(call);
    squeeze_axes(call, axes_of(call, axes->ints, call.input(0).dims.size()));
}

void squeeze(Call& call) {
    if (!call.has(1)) return squeeze_all(call);
    squeeze_axes(call, axes_of(call, call.list(1), call.input(0).dims.size()));
}

void unsqueeze_by_attribute(Call& call) {
    const Dims axes = call.node.integers("axes");
    call.require(axes.size() <= 64, "attribute \"axes\" is too long");
    unsqueeze_axes(call, axes);
}

void unsqueeze(Call& call) {
    unsqueeze_axes(call, call.list(1));
}

void transpose(Call& call) {
    const Dims& dims = call.input(0).dims;
    const size_t rank = dims.size();
    Dims order = call.node.integers("perm");
    if (call.node.find("perm", Attribute::Kind::Ints) == nullptr) {
        for (size_t i = rank; i-- > 0;) order.push_back(static_cast<int64_t>(i));
    }
    call.require(
        order.size() == rank && axes_of(call, order, rank).size() == rank,
        "attribute \"perm\" is " + text_of(order) + ", the input has shape " + text_of(dims));
    const Dims from = strides_of(dims);
    Dims result;
    Dims strides;
    for (const int64_t axis : order) {
        result.push_back(dims[call.axis(axis, rank)]);
        strides.push_back(from[call.axis(axis, rank)]);
    }
    picked(call, result, strides, 0);
}

void concat(Call& call) {
    const Tensor& first = call.input(0);
    call.require(call.node.find("axis", Attribute::Kind::Int) != nullptr,
                 "has no attribute \"axis\"");
    const size_t axis = call.axis(call.node.integer("axis", 0), first.dims.size());
    Dims dims = first.dims;
    for (size_t i = 1; i < call.input_count(); ++i) {
        const Tensor& other = call.input(i);
        Dims expected = other.dims;
        if (axis < expected.size()) expected[axis] = first.dims[axis];
        if (expected != first.dims || is_integral(other.type) != is_integral(first.type)) {
            call.refuse("input " + std::to_string(i) + " is of " + name_of(other.type) + " " +
                        text_of(other.dims) + ", which does not fit " + name_of(first.type) + " " +
                        text_of(first.dims));
        }
        // Neither can be beyond what tensors hold.
        dims[axis] += other.dims[axis];
    }
    call.give(call.moved(first, dims, [&](const auto&, auto& to) {
        if (to.empty()) return;
        const Cut at = cut(dims, axis);
        int64_t start = 0;
        for (size_t i = 0; i < call.input_count(); ++i) {
            const Tensor& part = call.input(i);
            const int64_t run = part.dims[axis] * at.inner;
            const auto copy = [&](const auto& from) {
                for (int64_t outer = 0; outer < at.outer; ++outer) {
                    std::copy(from.begin() + outer * run, from.begin() + (outer + 1) * run,
                              to.begin() + outer * at.size * at.inner + start);
                }
            };
            if constexpr (std::is_same_v<decltype(to[0]), int64_t&>) {
                copy(std::get<std::vector<int64_t>>(part.values));
            } else {
                copy(Numbers(part).list());
            }
            start += run;
        }
    }));
}

namespace {

void split_into(Call& call, const Dims& sizes) {
    const Tensor& x = call.input(0);
    const size_t axis = call.axis(call.node.integer("axis", 0), x.dims.size());
    int64_t total = 0;
    for (const int64_t size : sizes) {
        call.require(size >= 0 && size <= x.dims[axis] - total,
                     "parts of " + text_of(sizes) + " do not fit the input " + text_of(x.dims));
        total += size;
    }
    call.require(total == x.dims[axis] && sizes.size() == call.outputs.size(),
                 "parts of " + text_of(sizes) + " do not fit the input " + text_of(x.dims) +
                     " and " + std::to_string(call.outputs.size()) + " outputs");
    const Dims strides = strides_of(x.dims);
    std::vector<Tensor> outputs(sizes.size());
    int64_t start = 0;
    for (size_t i = 0; i < sizes.size(); ++i) {
        Dims dims = x.dims;
        dims[axis] = sizes[i];
        picked(call, dims, strides, start);
        outputs[i] = std::move(call.outputs[0]);
        start += sizes[i] * strides[axis];
    }
    call.outputs = std::move(outputs);
}

void split_evenly(Call& call) {
    const Dims& dims = call.input(0).dims;
    const size_t axis = call.axis(call.node.integer("axis", 0), dims.size());
    const auto parts = static_cast<int64_t>(call.outputs.size());
    call.require(dims[axis] % parts == 0, "the input " + text_of(dims) + " does not divide into " +
                                              std::to_string(parts) + " parts");
    split_into(call, Dims(call.outputs.size(), dims[axis] / parts));
}

}  // namespace

void split_by_attribute(Call& call) {
    const Attribute* sizes = call.node.find("split", Attribute::Kind::Ints);
    if (sizes == nullptr) return split_evenly(call);
    split_into(call, sizes->ints);
}

void split(Call& call) {
    if (!call.has(1)) return split_evenly(call);
    split_into(call, call.list(1));
}

namespace {

void slice_of(Call& call, const Dims& starts, const Dims& ends, Dims axes, Dims steps) {
    const Tensor& x = call.input(0);
    if (axes.empty()) {
        for (size_t i = 0; i < starts.size(); ++i) axes.push_back(static_cast<int64_t>(i));
    }
    if (steps.empty()) steps.assign(starts.size(), 1);
    call.require(starts.size() == ends.size() && starts.size() == axes.size() &&
                     starts.size() == steps.size(),
                 "starts, ends, axes and steps are not of one length");
    axes_of(call, axes, x.dims.size());
    Dims dims = x.dims;
    Dims strides = strides_of(x.dims);
    int64_t offset = 0;
    for (size_t i = 0; i < starts.size(); ++i) {
        const size_t axis = call.axis(axes[i], x.dims.size());
        const int64_t size = x.dims[axis];
        const int64_t step = steps[i];
        call.require(step != 0 && step != std::numeric_limits<int64_t>::min(),
                     "a step of " + std::to_string(step));
        if (size == 0) continue;
        const auto from_end = [size](int64_t place) { return place < 0 ? place + size : place; };
        // Backward, a slice may begin at the last element and end before the first.
        const int64_t last = step > 0 ? size : size - 1;
        const int64_t start = std::clamp<int64_t>(from_end(starts[i]), 0, last);
        const int64_t end = std::clamp<int64_t>(from_end(ends[i]), step > 0 ? 0 : -1, last);
        const int64_t distance = step > 0 ? end - start : start - end;
        const int64_t pace = step > 0 ? step : -step;
        dims[axis] = distance > 0 ? (distance - 1) / pace + 1 : 0;
        offset += start * strides[axis];
        // Of one element only the place matters; the stride might overflow.
        strides[axis] = dims[axis] > 1 ? strides[axis] * step : 0;
    }
    picked(call, dims, strides, offset);
}

}  // namespace

void slice_by_attributes(Call& call) {
    const Node& node = call.node;
    for (const char* name : {"starts", "ends"}) {
        call.require(node.find(name, Attribute::Kind::Ints) != nullptr,
                     "has no attribute \"" + std::string(name) + "\"");
    }
    slice_of(call, node.integers("starts"), node.integers("ends"), node.integers("axes"), {});
}

void slice(Call& call) {
    slice_of(call, call.list(1), call.list(2), call.has(3) ? call.list(3) : Dims(),
             call.has(4) ? call.list(4) : Dims());
}

void gather(Call& call) {
    const Tensor& x = call.input(0);
    const Tensor& indices = call.input(1);
    call.require(is_integral(indices.type), "the indices are no integers");
    const size_t axis = call.axis(call.node.integer("axis", 0), x.dims.size());
    const Cut at = cut(x.dims, axis);
    Dims dims(x.dims.begin(), x.dims.begin() + static_cast<std::ptrdiff_t>(axis));
    dims.insert(dims.end(), indices.dims.begin(), indices.dims.end());
    dims.insert(dims.end(), x.dims.begin() + static_cast<std::ptrdiff_t>(axis) + 1, x.dims.end());
    std::vector<int64_t> places = indices.integers();
    for (int64_t& place : places) {
        if (place < -at.size || place >= at.size) {
            call.refuse("index " + std::to_string(place) + " along an axis of " +
                        std::to_string(at.size));
        }
        if (place < 0) place += at.size;
    }
    call.give(call.placed(x, dims, [&](const auto& from, auto& to) {
        size_t next = 0;
        if (to.empty()) return;
        for (int64_t outer = 0; outer < at.outer; ++outer)
            for (const int64_t place : places)
                for (int64_t inner = 0; inner < at.inner; ++inner)
                    to[next++] =
                        from[static_cast<size_t>((outer * at.size + place) * at.inner + inner)];
    }));
}

void expand(Call& call) {
    const Dims& from = call.input(0).dims;
    const Dims wanted = call.list(1);
    const Dims dims = broadcast(call, from, wanted);
    picked(call, dims, broadcast_strides(from, dims), 0);
}

namespace {

// The input position for one before or behind the input; -1 for the constant.
int64_t source(const std::string& mode, int64_t place, int64_t size) {
    if (place >= 0 && place < size) return place;
    if (mode == "edge") return place < 0 ? 0 : size - 1;
    if (mode == "reflect") return place < 0 ? -place : 2 * (size - 1) - place;
    return -1;
}

void padded(Call& call, const Dims& pads, const Tensor& value) {
    const Tensor& x = call.input(0);
    const std::string mode = call.node.text("mode", "constant");
    call.require(mode == "constant" || mode == "reflect" || mode == "edge",
                 "attribute \"mode\" is " + in_quotes(mode));
    const size_t rank = x.dims.size();
    call.require(pads.size() == 2 * rank,
                 "pads " + text_of(pads) + " do not fit the input " + text_of(x.dims));
    constexpr int64_t MOST = int64_t(1) << 40;
    Dims dims(rank);
    for (size_t i = 0; i < rank; ++i) {
        const int64_t begin = pads[i];
        const int64_t end = pads[rank + i];
        call.require(std::max(begin, end) <= MOST && std::min(begin, end) >= -MOST,
                     "pads " + text_of(pads) + " are not possible");
        dims[i] = x.dims[i] + begin + end;
        call.require(dims[i] >= 0,
                     "pads " + text_of(pads) + " remove more than there is of " + text_of(x.dims));
        // Reflections of reflections, and edges of nothing, are not defined.
        const int64_t most = mode == "reflect"                  ? x.dims[i] - 1
                             : mode == "edge" && x.dims[i] == 0 ? 0
                                                                : MOST;
        call.require(begin <= std::max<int64_t>(most, 0) && end <= std::max<int64_t>(most, 0),
                     "pads " + text_of(pads) + " are too large for mode " + in_quotes(mode));
    }
    std::vector<std::vector<int64_t>> sources(rank);
    const Dims strides = strides_of(x.dims);
    call.give(call.moved(x, dims, [&](const auto& from, auto& to) {
        if (to.empty()) return;
        for (size_t i = 0; i < rank; ++i) {
            sources[i] = call.room<int64_t>({dims[i]});
            for (int64_t place = 0; place < dims[i]; ++place) {
                sources[i][static_cast<size_t>(place)] = source(mode, place - pads[i], x.dims[i]);
            }
        }
        Dims index(rank, 0);
        for (auto& element : to) {
            int64_t offset = 0;
            for (size_t i = 0; i < rank && offset >= 0; ++i) {
                const int64_t place = sources[i][static_cast<size_t>(index[i])];
                offset = place < 0 ? -1 : offset + place * strides[i];
            }
            using Element = std::decay_t<decltype(element)>;
            if (offset >= 0) {
                element = from[static_cast<size_t>(offset)];
            } else if constexpr (std::is_same_v<Element, int64_t>) {
                element = value.integer(0);
            } else {
                element = value.number(0);
            }
            for (size_t i = rank; i-- > 0 && ++index[i] == dims[i];) index[i] = 0;
        }
    }));
}

}  // namespace

void pad_by_attributes(Call& call) {
    call.require(call.node.find("pads", Attribute::Kind::Ints) != nullptr,
                 "has no attribute \"pads\"");
    padded(call, call.node.integers("pads"),
           Tensor::of_doubles({}, {call.node.number("value", 0)}));
}

void pad(Call& call) {
    Tensor value = Tensor::of_doubles({}, {0});
    if (call.has(2) && call.input(2).size() != 0) {
        call.scalar(2);
        value = call.input(2);
    }
    padded(call, call.list(1), value);
}

}  // namespace modelkit::onnx::evaluation
