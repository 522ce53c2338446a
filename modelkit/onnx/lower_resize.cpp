// Resize, Upsample, DepthToSpace and SpaceToDepth.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

// One axis of a resize, by where each output lies between the inputs.
struct ResizedAxis {
    int in = 1;
    int out = 1;
    double scale = 1;
    std::string corner;  ///< coordinate_transformation_mode

    double place(int at) const {
        const double x = at;
        if (corner == "asymmetric") return x / scale;
        if (corner == "align_corners") {
            return out == 1 ? 0.0 : x * (in - 1) / static_cast<double>(out - 1);
        }
        if (corner == "pytorch_half_pixel") return out > 1 ? (x + 0.5) / scale - 0.5 : 0.0;
        if (corner == "tf_half_pixel_for_nn") return (x + 0.5) / scale;
        return (x + 0.5) / scale - 0.5;
    }

    /// The same in float, the type of the scales, as the runtimes of such graphs compute it: 6
    /// / 1.2 is 5, while 6 / 1.2000000477 in double is a little less, which a floor makes a 4.
    float place_in_float(int at) const {
        const auto x = static_cast<float>(at);
        const auto by = static_cast<float>(scale);
        if (corner == "asymmetric") return x / by;
        if (corner == "align_corners") {
            if (out == 1) return 0.0f;
            return x * static_cast<float>(in - 1) / static_cast<float>(out - 1);
        }
        if (corner == "pytorch_half_pixel" && out == 1) return 0.0f;
        const float from_edge = (x + 0.5f) / by;
        return corner == "tf_half_pixel_for_nn" ? from_edge : from_edge - 0.5f;
    }

    /// Which input the nearest one is.
    int nearest(int at, const std::string& rounding) const {
        return rounded(static_cast<double>(place_in_float(at)), rounding);
    }

    /// The input that a place between inputs is rounded to.
    int rounded(double x, const std::string& rounding) const {
        double whole = std::floor(x);
        if (rounding == "ceil") whole = std::ceil(x);
        if (rounding == "round_prefer_floor") whole = std::ceil(x - 0.5);
        if (rounding == "round_prefer_ceil") whole = std::floor(x + 0.5);
        return static_cast<int>(std::clamp(whole, 0.0, static_cast<double>(in - 1)));
    }

    /// Whether an output lies so near to where one input ends and the next begins that another
    /// order of roundings takes the other one: a quotient, a product with the reciprocal, and the
    /// factor before it became a float are apart by up to three roundings. A quotient that lies
    /// there to the last bit is the same everywhere, a product with the reciprocal need not be: 41
    /// times the float next to 1 / 41 is less than 1.
    bool is_open(int at, const std::string& rounding, int& low, int& high) const {
        const double x = place(at);
        const double steps = rounding == "floor" || rounding == "ceil" ? x : x + 0.5;
        low = high = nearest(at, rounding);
        if (steps != std::floor(steps)) {
            const double reach = 4 * 0x1p-24 * (std::fabs(x) + 0.5);
            low = rounded(x - reach, rounding);
            high = rounded(x + reach, rounding);
        } else if (corner == "asymmetric") {
            const float product = static_cast<float>(at) * static_cast<float>(1.0 / scale);
            low = std::min(low, rounded(static_cast<double>(product), rounding));
            high = std::max(high, rounded(static_cast<double>(product), rounding));
        }
        return low != high;
    }
};

/// What is to be told where rounding decides; empty when it does nowhere.
std::string open_places(const ResizedAxis& axis, const std::string& rounding, bool rows) {
    if (axis.in == axis.out && axis.scale == 1.0) return {};
    constexpr int told = 16;
    const std::string name = rows ? "row" : "column";
    int count = 0;
    std::string places;
    std::string example;
    for (int i = 0; i < axis.out; ++i) {
        int low = 0;
        int high = 0;
        if (!axis.is_open(i, rounding, low, high) || ++count > told) continue;
        places += (count > 1 ? ", " : "") + std::to_string(i);
        if (count > 1) continue;
        example = name + " " + std::to_string(i) + " is pixel " + std::to_string(low) + " or " +
                  std::to_string(high) + ", here " + std::to_string(axis.nearest(i, rounding));
    }
    if (count == 0) return {};
    if (count > told) places += " and " + std::to_string(count - told) + " more";
    return name + (count > 1 ? "s " : " ") + places + " at scale " + number_text(axis.scale) +
           ": which of two pixels is taken depends on rounding; " + example;
}

/// The first input behind which the engine, which doubles by a running sum of floats, takes the
/// wrong pair of neighbours with aligned corners; 0 when there is none. The last outputs lie
/// 1 / (2n - 1) behind an input, and from n = 377 on the sum may have fallen behind by that.
int overtaken(int inputs) {
    const auto step = static_cast<float>((inputs - 1.0) / (2.0 * inputs - 1.0));
    float position = step;
    for (int i = 0; i + 1 < inputs; ++i, position += 2.0f * step) {
        if (static_cast<int>(position) != i) return i;
    }
    return 0;
}

/// The whole factor by which an axis grows; 0 when there is none.
int growth(const ResizedAxis& axis) {
    return axis.out % axis.in == 0 ? axis.out / axis.in : 0;
}
int shrinkage(const ResizedAxis& axis) {
    return axis.in % axis.out == 0 ? axis.in / axis.out : 0;
}

/// Nearest neighbours as each input `times` times and every `stride`th of those, from `first` on.
struct Stepped {
    int times = 0;  ///< 0 where the neighbours do not go so
    int stride = 1;
    int first = 0;
};

Stepped stepped(const ResizedAxis& axis, const std::string& rounding) {
    // Beyond this the repeated pixels take more room than lines that are put together.
    constexpr int MOST_TIMES = 8;
    const int common = std::gcd(axis.in, axis.out);
    Stepped steps = {axis.out / common, axis.in / common, 0};
    if (steps.times > MOST_TIMES || axis.in > 65535 / steps.times) return {};
    for (; steps.first < steps.times; ++steps.first) {
        bool all = true;
        for (int i = 0; i < axis.out && all; ++i) {
            all = axis.nearest(i, rounding) == (i * steps.stride + steps.first) / steps.times;
        }
        if (all) return steps;
    }
    return {};
}

bool near(double a, double b) {
    return std::fabs(a - b) < 1e-6;
}

enum class Step { Keep, Repeat, Thin, Other };

/// What nearest neighbours are along an axis: each input some times, or every so manieth input.
Step nearest_step(const ResizedAxis& axis, const std::string& rounding, int& offset) {
    // An axis that is not resized stays, whatever its rule would make of a factor of 1.
    if (axis.in == axis.out && axis.scale == 1.0) return Step::Keep;
    const int times = growth(axis);
    const int stride = shrinkage(axis);
    bool repeats = times > 0;
    bool thins = stride > 0;
    offset = axis.nearest(0, rounding);
    for (int i = 0; i < axis.out; ++i) {
        const int from = axis.nearest(i, rounding);
        repeats = repeats && from == i / times;
        thins = thins && from == offset + i * stride;
    }
    if (repeats) return times == 1 ? Step::Keep : Step::Repeat;
    return thins ? Step::Thin : Step::Other;
}

/// The weights with which a pixel, put `factor` pixels apart from its neighbours, adds to those
/// around it, times `factor`, which halves hold; the first of them is `first` pixels from the
/// output.
std::vector<double> tent(int factor, double middle, int& first) {
    std::vector<double> taps;
    first = static_cast<int>(std::ceil(middle - factor));
    for (int i = first; i <= std::floor(middle + factor); ++i) {
        taps.push_back(std::max(0.0, factor - std::fabs(i - middle)));
    }
    return taps;
}

WeightRows outer_product(const std::vector<double>& y, const std::vector<double>& x, int channels) {
    return [=](size_t tap, float* to) {
        const double product = y[tap / x.size()] * x[tap % x.size()];
        std::fill_n(to, channels, static_cast<float>(product));
    };
}

}  // namespace

void Lowering::resize() {
    const Value& data = value(0);
    const size_t rank = data.dims.size();
    require(rank == 3 || rank == 4,
            "a tensor of 3 or 4 dimensions expected, found " + text_of(data.dims));
    const bool old = node().op_type == "Upsample" || graph.opset < 11;
    std::string mode = node().text("mode", "nearest");
    // Upsample's first form had this name for it.
    if (mode == "bilinear" && node().op_type == "Upsample") mode = "linear";
    require(mode == "nearest" || mode == "linear",
            "mode nearest or linear expected, found " + in_quotes(mode));
    std::string corner = "asymmetric";
    std::string rounding = "floor";
    std::vector<double> scales;
    Dims sizes;
    if (old) {
        if (node().op_type == "Upsample" && graph.opset < 9) {
            const Attribute* list = node().find("scales", Attribute::Kind::Floats);
            require(list != nullptr, "scales expected");
            scales = list->floats;
        } else {
            scales = required(1, "scales").numbers();
        }
    } else {
        corner = node().text("coordinate_transformation_mode", "half_pixel");
        rounding = node().text("nearest_mode", "round_prefer_floor");
        const Tensor* given = node().has_input(2) ? &required(2, "scales") : nullptr;
        if (given != nullptr && given->size() > 0) scales = given->numbers();
        if (scales.empty()) sizes = required(3, "sizes").integers();
    }
    require(corner == "half_pixel" || corner == "pytorch_half_pixel" || corner == "asymmetric" ||
                corner == "align_corners" || (corner == "tf_half_pixel_for_nn" && graph.opset < 13),
            "a coordinate_transformation_mode of operator set " + std::to_string(graph.opset) +
                " without a region expected, found " + in_quotes(corner));
    require(rounding == "floor" || rounding == "ceil" || rounding == "round_prefer_floor" ||
                rounding == "round_prefer_ceil",
            "a nearest_mode that ONNX knows expected, found " + in_quotes(rounding));
    require(scales.size() == rank || sizes.size() == rank,
            "scales or sizes for " + std::to_string(rank) + " dimensions expected, found " +
                std::to_string(scales.size()) + " scales and " + std::to_string(sizes.size()) +
                " sizes");
    Dims dims = data.dims;
    ResizedAxis axes[2];  // rows, columns
    for (size_t i = 0; i < rank; ++i) {
        const double scale =
            sizes.empty() ? scales[i]
                          : static_cast<double>(sizes[i]) / static_cast<double>(data.dims[i]);
        require(std::isfinite(scale) && scale > 0,
                "scales above 0 expected, found " + number_text(scale));
        require(node().op_type != "Upsample" || scale >= 1,
                "scales of at least 1 expected, found " + number_text(scale));
        // The product is one of floats, the type of the scales: 10 times 0.7 is 7, not a little
        // less.
        const float product = static_cast<float>(data.dims[i]) * static_cast<float>(scale);
        const double size = sizes.empty() ? std::floor(static_cast<double>(product))
                                          : static_cast<double>(sizes[i]);
        require(size >= 1 && size <= 65535,
                "sides of 1 to 65535 expected, found " + number_text(size));
        dims[i] = static_cast<int64_t>(size);
        require(i >= 2 || dims[i] == data.dims[i],
                "a scale of 1 for batch and channels expected, found " + number_text(scale));
        if (i < 2) continue;
        ResizedAxis& axis = axes[i + 1 == rank ? 1 : 0];
        axis = {static_cast<int>(data.dims[i]), static_cast<int>(dims[i]), scale, corner};
    }
    if (rank == 3) axes[0] = {1, 1, 1.0, corner};
    Blob blob = map_of(data);
    const Range range = blob.range;
    const ResizedAxis& y = axes[0];
    const ResizedAxis& x = axes[1];

    if (mode == "nearest") {
        for (const bool rows : {true, false}) {
            const std::string open = open_places(rows ? y : x, rounding, rows);
            if (!open.empty()) note(open);
        }
        int from_y = 0;
        int from_x = 0;
        const Step step_y = nearest_step(y, rounding, from_y);
        const Step step_x = nearest_step(x, rounding, from_x);
        Window thin;
        if (step_y == Step::Thin) thin.stride_h = shrinkage(y);
        if (step_x == Step::Thin) thin.stride_w = shrinkage(x);
        if (thin.stride_h > 1 || thin.stride_w > 1) {
            blob = pad_or_crop(blob, step_y == Step::Thin ? -from_y : 0,
                               step_x == Step::Thin ? -from_x : 0, 0, 0);
            const WeightRows ones = all_of(static_cast<size_t>(blob.size.c), 1.0f);
            blob = emitter.depthwise(blob, 1, thin, ones, {});
        }
        for (const bool rows : {true, false}) {
            if ((rows ? step_y : step_x) != Step::Other) continue;
            const ResizedAxis& axis = rows ? y : x;
            const Stepped steps = stepped(axis, rounding);
            if (steps.times > 0) {
                blob = repeat(blob, rows ? steps.times : 1, rows ? 1 : steps.times);
                blob = pad_or_crop(blob, rows ? -steps.first : 0, rows ? 0 : -steps.first, 0, 0);
                Window every;
                (rows ? every.stride_h : every.stride_w) = steps.stride;
                const WeightRows ones = all_of(static_cast<size_t>(blob.size.c), 1.0f);
                blob = emitter.depthwise(blob, 1, every, ones, {});
                continue;
            }
            // Uneven neighbours are put together line by line.
            std::vector<int> lines;
            for (int i = 0; i < axis.out; ++i) lines.push_back(axis.nearest(i, rounding));
            blob = gather_lines(blob, rows, lines);
        }
        blob = repeat(blob, step_y == Step::Repeat ? growth(y) : 1,
                      step_x == Step::Repeat ? growth(x) : 1);
        blob.range = range;
        give(dims, blob);
        return;
    }

    // Whole factors, and places that follow from them.
    for (const ResizedAxis* axis : {&y, &x}) {
        const int grows = growth(*axis);
        const int shrinks = shrinkage(*axis);
        require((grows > 0 && (axis->in == 1 || near(axis->scale, grows))) ||
                    (shrinks > 0 && near(axis->scale * shrinks, 1.0)),
                "a whole factor expected, found " + std::to_string(axis->in) + " to " +
                    std::to_string(axis->out) + " pixels");
    }

    const bool grows = growth(y) > 0 && growth(x) > 0;
    const bool half = corner == "half_pixel" || corner == "pytorch_half_pixel";
    const int factor = growth(y);
    if (grows && growth(y) == growth(x) && factor > 1) {
        const bool native = corner == "align_corners" ? factor == 2 || factor == 4 || factor == 8
                                                      : half && factor == 2;
        // The engine's own factor of 2 takes the corners as they are; for one pixel the others are
        // left as they were.
        const bool pixels = y.in > 1 && x.in > 1;
        if (native && pixels) {
            if (corner == "align_corners" && factor == 2) {
                for (const ResizedAxis* axis : {&y, &x}) {
                    const int behind = overtaken(axis->in);
                    require(behind == 0,
                            "sides whose running positions in the engine stay in step "
                            "expected for align_corners, found " +
                                std::to_string(axis->in) + ", out of step at pixel " +
                                std::to_string(behind));
                }
                // n sums at positions up to n, each off by 2^-24 of that: beyond what a half
                // resolves it is worth a word.
                const double sums = std::max(y.in, x.in);
                if (sums * sums * 0x1p-24 > 0x1p-11) {
                    note(
                        "the engine adds its positions up in float: with aligned corners they are "
                        "off by up to " +
                        number_text(sums * sums * 0x1p-24) + " of the step between two pixels");
                }
            }
            give(dims, emitter.upsampling(blob, factor, true, corner == "align_corners"));
            return;
        }
    }
    require(
        corner != "align_corners" || (y.in == y.out && x.in == x.out) || (y.in == 1 && x.in == 1),
        "align_corners with one factor of 2, 4 or 8 for rows and columns expected, found " +
            std::to_string(y.in) + " rows to " + std::to_string(y.out) + " and " +
            std::to_string(x.in) + " columns to " + std::to_string(x.out));
    require(corner == "half_pixel" || corner == "pytorch_half_pixel" || corner == "asymmetric" ||
                corner == "align_corners",
            "half_pixel, asymmetric or align_corners expected for mode linear, found " +
                in_quotes(corner));
    for (const bool rows : {true, false}) {
        const ResizedAxis& axis = rows ? y : x;
        if (axis.in == axis.out) continue;
        if (axis.in == 1) {
            blob = repeat(blob, rows ? axis.out : 1, rows ? 1 : axis.out);
            continue;
        }
        const int channels = blob.size.c;
        const std::vector<double> one = {1.0};
        Window2D window;
        AxisWindow& along = rows ? window.y : window.x;
        AxisWindow& across = rows ? window.x : window.y;
        if (growth(axis) > 0) {
            // The outermost pixels again, zeros between all, and a tent over them.
            const int times = growth(axis);
            std::vector<int> lines;
            for (int i = -1; i <= axis.in; ++i) lines.push_back(std::clamp(i, 0, axis.in - 1));
            blob = gather_lines(blob, rows, lines);
            Window apart;
            (rows ? apart.stride_h : apart.stride_w) = times;
            blob = emitter.depthwise_deconvolution(blob, apart, all_of(1, 1.0f), {});
            if (rows) {
                blob = pad_or_crop(blob, 0, 0, 0, -2);
            } else {
                blob = pad_or_crop(blob, 0, 0, -2, 0);
            }
            // In the wider tensor, input i stands at times * (i + 1).
            const double middle = half ? 0.5 * times + 0.5 : static_cast<double>(times);
            int first = 0;
            const std::vector<double> taps = tent(times, middle, first);
            along.in = rows ? blob.size.h : blob.size.w;
            along.kernel = static_cast<int>(taps.size());
            along.begin = -first;
            along.end = axis.out - 1 + along.kernel - along.in - along.begin;
            across.in = rows ? blob.size.w : blob.size.h;
            const WeightRows weights =
                outer_product(rows ? taps : one, rows ? one : taps, channels);
            blob = convolve_depthwise(blob, 1, window, weights, {}, 0);
            blob = scaled(blob, 1.0 / times);
        } else {
            // Between two neighbours, the same in every block.
            const int stride = shrinkage(axis);
            const double place = axis.place(0);
            const int before = static_cast<int>(std::floor(place));
            const double share = place - before;
            std::vector<double> taps(static_cast<size_t>(stride), 0.0);
            taps[static_cast<size_t>(before)] += 1.0 - share;
            if (share > 0) taps[static_cast<size_t>(before) + 1] += share;
            along.in = axis.in;
            along.kernel = along.stride = stride;
            across.in = rows ? blob.size.w : blob.size.h;
            const WeightRows weights =
                outer_product(rows ? taps : one, rows ? one : taps, channels);
            blob = convolve_depthwise(blob, 1, window, weights, {}, 0);
        }
    }
    blob.range = range;
    give(dims, blob);
}

void Lowering::depth_to_space() {
    const Value& data = value(0);
    require(data.dims.size() == 4,
            "a tensor of 4 dimensions expected, found " + text_of(data.dims));
    const Extent size = extent_of(data.dims);
    const int block = small(node().integer("blocksize", 0), "a block");
    require(block >= 1 && block <= 255 && size.c % (block * block) == 0,
            "a block whose square divides " + std::to_string(size.c) +
                " channels expected, found " + std::to_string(block));
    const std::string mode = node().text("mode", "DCR");
    require(mode == "DCR" || mode == "CRD", "mode DCR or CRD expected, found " + in_quotes(mode));
    Blob blob = map_of(data);
    if (mode == "DCR") {
        // The engine has the pixels of a block side by side among the channels.
        const int outputs = size.c / (block * block);
        std::vector<int> order;
        for (int c = 0; c < outputs; ++c) {
            for (int k = 0; k < block * block; ++k) order.push_back(k * outputs + c);
        }
        blob = pick_channels(blob, order);
    }
    blob = emitter.pixel_shuffle(blob, block, true);
    give({1, blob.size.c, blob.size.h, blob.size.w}, blob);
}

void Lowering::space_to_depth() {
    const Value& data = value(0);
    require(data.dims.size() == 4,
            "a tensor of 4 dimensions expected, found " + text_of(data.dims));
    const Extent size = extent_of(data.dims);
    const int block = small(node().integer("blocksize", 0), "a block");
    require(block >= 1 && block <= 255 && size.h % block == 0 && size.w % block == 0,
            "a block that divides the sides of " + text_of(size) + " expected, found " +
                std::to_string(block));
    Blob blob = emitter.pixel_shuffle(map_of(data), block, false);
    // ONNX has the pixels of the block outermost, the engine the channels.
    std::vector<int> order;
    for (int k = 0; k < block * block; ++k) {
        for (int c = 0; c < size.c; ++c) order.push_back(c * block * block + k);
    }
    blob = pick_channels(blob, order);
    give({1, blob.size.c, blob.size.h, blob.size.w}, blob);
}

}  // namespace modelkit::onnx
