#include "command_line.h"

#include <algorithm>
#include <charconv>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "errors.h"
#include "files.h"

namespace tool {
namespace {

constexpr size_t help_width = 96;
constexpr size_t name_width = 28;

/// Breaks at blanks; keeps the line ends that are there.
std::vector<std::string> wrapped(std::string_view text, size_t width) {
    std::vector<std::string> lines(1);
    while (!text.empty()) {
        const size_t end = text.find_first_of(" \n");
        const std::string_view word = text.substr(0, end);
        std::string& line = lines.back();
        if (!line.empty() && line.size() + 1 + word.size() > width) {
            lines.emplace_back(word);
        } else {
            line += (line.empty() ? "" : " ") + std::string(word);
        }
        if (end == std::string_view::npos) break;
        if (text[end] == '\n') lines.emplace_back();
        text.remove_prefix(end + 1);
    }
    return lines;
}

/// Two columns within the width of a page.
std::string two_columns(const std::string& name, const std::string& description) {
    std::string text = "  " + name;
    bool first = true;
    for (const std::string& line : wrapped(description, help_width - name_width - 2)) {
        if (first && text.size() < name_width + 1) {
            text += std::string(name_width + 2 - text.size(), ' ');
        } else {
            text += "\n" + std::string(name_width + 2, ' ');
        }
        text += line;
        first = false;
    }
    return text + "\n";
}

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option(const CLI::Option* option, bool is_positional) const override {
        std::string name = make_option_name(option, is_positional);
        // "-h,--help" reads better with a blank.
        const size_t comma = name.find(',');
        if (comma != std::string::npos) name.insert(comma + 1, " ");
        if (!is_positional && option->get_type_size() != 0) name += " " + option->get_type_name();
        return two_columns(
            name, option->get_description() + (option->get_required() ? " Required." : ""));
    }
    std::string make_subcommand(const CLI::App* sub) const override {
        return two_columns(sub->get_name(), sub->get_description());
    }
    std::string make_description(const CLI::App* app) const override {
        std::string text;
        for (const std::string& line : wrapped(app->get_description(), help_width)) {
            text += line + "\n";
        }
        return text + "\n";
    }
    std::string make_footer(const CLI::App* app) const override {
        return app->get_footer().empty() ? "" : app->get_footer() + "\n";
    }
    std::string make_usage(const CLI::App* app, std::string) const override {
        if (app->get_parent() == nullptr) return "Usage: tarno COMMAND [OPTIONS]\n";
        const bool is_info = app->get_name() == "info";
        return "Usage: tarno " + app->get_name() + (is_info ? " MODEL" : "") + " [OPTIONS]\n";
    }
};

/// For numbers, in the words of the other errors.
template <typename Number>
std::string number_fault(const std::string& text, const char* expected) {
    Number number = {};
    const auto [last, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && last == text.data() + text.size()) return "";
    return std::string("expected ") + expected + ", found \"" + text + "\"";
}

std::string whole_number_fault(const std::string& text) {
    return number_fault<int>(text, "a whole number");
}

std::string number_fault_of(const std::string& text) {
    return number_fault<double>(text, "a number");
}

/// Options that are texts here and get their meaning when all is read.
struct Texts {
    std::string size;
    std::string memory_limit;
    std::string work_limit;
    std::string mean;
    std::string norm;
    std::string engine = "cpu";
};

void add_size(CLI::App* app, Texts& texts) {
    app->add_option(
           "--size", texts.size,
           "Base size in pixels that the relative sizes of the model multiply, in place of "
           "the one in its header (256 where that is 0). For an input of scale 1 this is "
           "the size of the input.")
        ->type_name("WxH");
}

void add_verbose(CLI::App* app, bool& verbose) {
    app->add_flag("--verbose", verbose, "Show the library's log lines on standard error.");
}

void add_gpu_options(CLI::App* app, GpuOptions& gpu) {
    app->add_option("--tricks-mode", gpu.tricks_mode,
                    "Forms of the GPU engine's shaders: 0 the four-point and constant-index forms, "
                    "any other number the basic ones. 4 unless told otherwise.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("MODE");
    app->add_option("--ubo-slice-limit", gpu.ubo_slice_limit,
                    "Weights of the GPU engine in at most so many uniform blocks a layer, in a "
                    "storage buffer where that is not enough. 0, storage buffers alone, unless "
                    "told otherwise.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("COUNT");
}

void add_engine(CLI::App* app, Texts& texts, GpuOptions& gpu) {
    app->add_option("--engine", texts.engine,
                    "cpu or gpu, which takes OpenGL 4.3. cpu unless told otherwise.")
        ->type_name("ENGINE");
    add_gpu_options(app, gpu);
}

void add_preparation(CLI::App* app, InputRules& rules, Texts& texts) {
    app->add_option(
           "--pixel-type", rules.pixel_type,
           "Channels that the net wants: rgb, bgr, gray or rgba. By their number unless "
           "told otherwise: 1 gray, 3 rgb, 4 rgba. Pictures are converted, alpha is dropped "
           "where it is not wanted.")
        ->type_name("TYPE");
    app->add_option(
           "--mean", texts.mean,
           "Subtracted from the values 0 to 255 of each channel; one number for all or one "
           "for each, in the order of --pixel-type. 0 unless told otherwise.")
        ->type_name("NUMBERS");
    app->add_option("--norm", texts.norm,
                    "Multiplied behind it. 1/255 unless told otherwise, and 1 for an array.")
        ->type_name("NUMBERS");
}

void add_inputs(CLI::App* app, std::vector<std::string>& inputs) {
    app->add_option(
           "--input", inputs,
           "A PNG or JPEG picture, resized to the input of the net; or an .npy array (<f4, "
           "<f8 or |u1, C order), taken as it is. Once for each input of the model, in the "
           "order of their indices.")
        ->type_name("FILE")
        ->required()
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void add_limits(CLI::App* app, Texts& texts) {
    app->add_option(
           "--memory-limit", texts.memory_limit,
           "Refuse what needs more bytes than this for weights, tensors and scratch, with all "
           "that the command keeps of them. 2G unless told otherwise.")
        ->type_name("BYTES");
    app->add_option("--work-limit", texts.work_limit,
                    "Refuse a model of which one run takes more inner steps (multiply-adds and the "
                    "like). 10G unless told otherwise.")
        ->type_name("STEPS");
}

void apply(const Texts& texts, PlanOptions& plan, RunLimits& limits) {
    if (!texts.size.empty()) plan.base = parse_size("--size", texts.size);
    if (!texts.memory_limit.empty()) {
        limits.memory = parse_bytes("--memory-limit", texts.memory_limit);
    }
    if (!texts.work_limit.empty()) limits.work = parse_count("--work-limit", texts.work_limit);
}

CLI::App* add_info(CLI::App& app, InfoCommand& command, Texts& texts) {
    CLI::App* info = app.add_subcommand("info", "Show what is in a model file.");
    info->add_option("MODEL", command.model, "The model file.")->required();
    CLI::Option* json = info->add_flag("--json", command.json, "Write JSON.");
    info->add_flag("--dot", command.dot,
                   "Write the graph for Graphviz, as in: tarno info M --dot | dot -Tsvg")
        ->excludes(json);
    add_size(info, texts);
    add_verbose(info, command.verbose);
    info->footer(
        "The table has the layers in the order in which they run. Sizes are channels x rows x\n"
        "columns, as the CPU engine computes them at the base size; kernel, stride and pad are\n"
        "width x height, one number when both are the same. Parameters are the numbers that the\n"
        "file holds for the layer, multiply-adds the products with a weight in one run.\n"
        "\n"
        "A sound file with a layer that the CPU engine does not have is shown all the same, and "
        "the\n"
        "exit status is 1.");
    return info;
}

void add_table(CLI::App* app, std::string& table) {
    app->add_option("--table", table,
                    "Tuning table, as tarno tune writes it. The default rule chooses the operators "
                    "unless there is one.")
        ->type_name("FILE");
}

CLI::App* add_run(CLI::App& app, RunCommand& command, Texts& texts) {
    CLI::App* run = app.add_subcommand("run", "Run a model over a picture or an array.");
    run->add_option("--model", command.model, "The model file.")->type_name("FILE")->required();
    add_table(run, command.table);
    add_engine(run, texts, command.gpu);
    add_inputs(run, command.inputs);
    run->add_option("--output", command.output,
                    "Where the result goes. An .npy file gets the numbers, as float32 of channels, "
                    "rows, columns. A .png file gets 0 to 1 as 0 to 255, what is outside clamped: "
                    "one channel as grey, three as RGB.")
        ->type_name("FILE");
    run->add_option("--layer", command.layer,
                    "Id of the layer whose output is the result (see tarno info); the last layer "
                    "unless told otherwise.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("ID");
    run->add_option("--all-layers", command.all_layers,
                    "Folder for the outputs of all layers, an .npy file each: place in the run, "
                    "layer id and kind make its name.")
        ->type_name("FOLDER");
    run->add_flag("--resize-output", command.resize_output,
                  "Bring the result to the size of the picture before it is written (bilinear).");
    run->add_option("--composite", command.composite,
                    "A .png file for the picture over another background, in the size of the "
                    "picture: picture * mask + background * (1 - mask), the mask being the result.")
        ->type_name("FILE");
    run->add_option("--background", command.background,
                    "Background of the composite: R,G,B from 0 to 255, or a picture, which is "
                    "stretched. White unless told otherwise.")
        ->type_name("COLOUR|FILE");
    add_preparation(run, command.rules, texts);
    add_size(run, texts);
    run->add_option("--repeat", command.repeat,
                    "Feed the input this many times; an LSTM keeps its state from one time to the "
                    "next. The last result counts.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("TIMES");
    add_limits(run, texts);
    add_verbose(run, command.verbose);
    run->footer(
        "For a net that takes pixel / 255 less (0.485, 0.456, 0.406):\n"
        "\n"
        "  tarno run --model portrait.zqnet --input me.jpg --output mask.png --resize-output \\\n"
        "      --mean 123.675,116.28,103.53 --norm 1/255\n"
        "\n"
        "An array for a picture input has the shape (channels, rows, columns); its size counts, "
        "not\n"
        "the base size. An array for a tensor input may be (features), (time, features) or (c, h, "
        "w):\n"
        "time steps become the channels, as the LSTM reads them.\n"
        "\n"
        "A turn that a camera noted in a JPEG is not applied. Files are written whole or not at "
        "all.");
    return run;
}

CLI::App* add_tune(CLI::App& app, TuneCommand& command, Texts& texts) {
    CLI::App* tune =
        app.add_subcommand("tune", "Find the fastest operators for a model on this machine.");
    tune->add_option("--model", command.model, "The model file.")->type_name("FILE")->required();
    tune->add_option("--output", command.output,
                     "Where the table goes: source text for a host to compile in, and what --table "
                     "of run and bench reads. Standard output unless told otherwise.")
        ->type_name("FILE");
    add_size(tune, texts);
    add_limits(tune, texts);
    add_verbose(tune, command.verbose);
    tune->footer(
        "Every operator whose rules fit is tried at the layer's true size with its true weights; "
        "one\n"
        "whose output rounding does not explain is rejected. The table is the cheapest path "
        "through\n"
        "the whole net, changes of layout included; all that was tried is listed with its time. "
        "Times\n"
        "are the fastest of several runs with the machine as it is: tune on the machine that the "
        "table\n"
        "is for, with nothing else running.");
    return tune;
}

CLI::App* add_bench(CLI::App& app, BenchCommand& command, Texts& texts) {
    CLI::App* bench = app.add_subcommand("bench", "Measure time and memory of a model.");
    bench->add_option("--model", command.model, "The model file.")->type_name("FILE")->required();
    add_engine(bench, texts, command.gpu);
    add_table(bench, command.table);
    bench
        ->add_option(
            "--runs", command.runs,
            "Runs of the steady state: as many as --duration holds, or 100 without either, or "
            "what 10 seconds hold where that is less.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("COUNT");
    bench
        ->add_option("--duration", command.duration,
                     "End the steady state after this time, at least one run done.")
        ->check(CLI::Validator(number_fault_of, ""))
        ->type_name("SECONDS");
    bench
        ->add_option(
            "--warmup", command.warmup,
            "Runs between the first and the steady state: at least so many, 10 unless told "
            "otherwise, and on until the memory pools have stopped growing; never longer "
            "than 5 seconds.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("COUNT");
    bench
        ->add_option("--fps", command.fps,
                     "Start the runs as a camera does, so many in a second, and show how late they "
                     "start. A frame whose successor is due already is dropped.")
        ->check(CLI::Validator(number_fault_of, ""))
        ->type_name("RATE");
    CLI::Option* duration = bench->get_option("--duration");
    CLI::Option* fps = bench->get_option("--fps");
    bench
        ->add_flag("--compare-tables", command.compare_tables,
                   "Time the default rule beside --table, layer by layer, in turns.")
        ->needs(bench->get_option("--table"))
        ->excludes(duration)
        ->excludes(fps);
    bench->add_flag("--json", command.json, "Write JSON.");
    add_size(bench, texts);
    add_limits(bench, texts);
    add_verbose(bench, command.verbose);
    bench->footer(
        "Each run is what a host does for a frame: a fresh extractor on the two memory pools that "
        "all\n"
        "runs share, the input, the last layer. The input is random numbers from 0 to 1, the same "
        "in\n"
        "every run. Percentiles are by nearest rank. The layers are timed in runs of their own.\n"
        "\n"
        "With --engine gpu a run is an upload, the layers, and the last output read back, each of "
        "them\n"
        "waited for. The layers are timed by the GPU's own clock.");
    return bench;
}

CLI::App* add_convert(CLI::App& app, ConvertCommand& command) {
    CLI::App* convert = app.add_subcommand("convert", "Make a model file of an ONNX file.");
    convert
        ->add_option("--input", command.input,
                     "The ONNX file (IR 3 to 8, operator sets 7 to 17), with constant weights and "
                     "a batch of one.")
        ->type_name("FILE")
        ->required();
    convert
        ->add_option("--output", command.output,
                     "Where the model goes. The names of its nodes go beside it, to FILE.names, "
                     "for tarno info.")
        ->type_name("FILE")
        ->required();
    convert
        ->add_option("--shape", command.shapes,
                     "Shape of an input whose file leaves it open, once for each. An open first "
                     "dimension is a batch of 1.")
        ->type_name("NAME=1,3,H,W")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    convert
        ->add_option("--engines", command.engines,
                     "cpu, gpu or both: refuse what an engine that is named lacks. cpu unless told "
                     "otherwise.")
        ->type_name("ENGINES");
    convert
        ->add_option("--data", command.data,
                     "An .npy array or a tensor file (.pb) for the proof, once for each input of "
                     "the graph, in its order. Seeded numbers from -1 to 1 unless there is one.")
        ->type_name("FILE")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    convert->add_option("--seed", command.seed, "Of the seeded numbers, 1 unless told otherwise.")
        ->type_name("NUMBER");
    convert->add_flag("--layers", command.layers, "Show the differences of all layers, too.");
    convert->add_flag("--no-verify", command.no_verify, "Convert without proof.");
    convert->add_option("--model-id", command.model_id, "Identity in the header, 0 by default.")
        ->type_name("NUMBER");
    convert
        ->add_option("--application-type", command.application_type,
                     "Application type in the header, 0 by default.")
        ->type_name("NUMBER");
    convert
        ->add_option("--gesture-mode", command.gesture_mode,
                     "Gesture mode in the header, 0 by default.")
        ->type_name("NUMBER");
    add_verbose(convert, command.verbose);
    convert->footer(
        "The proof runs the model on the CPU engine and the graph in double on the same input, "
        "and\n"
        "fails when they differ by more than half weights and float sums explain: exit status 1, "
        "no\n"
        "file. docs/converting.md has the table of operators.");
    return convert;
}

CLI::App* add_compare(CLI::App& app, CompareCommand& command, Texts& texts) {
    CLI::App* compare =
        app.add_subcommand("compare", "Run both engines on one input and compare layer by layer.");
    compare->add_option("--model", command.model, "The model file.")->type_name("FILE")->required();
    add_inputs(compare, command.inputs);
    add_preparation(compare, command.rules, texts);
    add_gpu_options(compare, command.gpu);
    compare->add_flag("--json", command.json, "Write JSON.");
    add_size(compare, texts);
    add_limits(compare, texts);
    add_verbose(compare, command.verbose);
    compare->footer(
        "The GPU engine stores every tensor as halves. How far the engines may lie apart for that\n"
        "reason is carried along the net: what reached a layer's inputs goes through the layer at "
        "its\n"
        "worst, with the rounding of its sums and of its output. The exit status is 1 when a layer "
        "is\n"
        "beyond it; the first such layer is named.\n"
        "\n"
        "A layer that one engine does not have is left out, with all that read it. One that the "
        "engines\n"
        "do not mean alike is measured and not judged.");
    return compare;
}

void require(bool holds, const std::string& text) {
    if (!holds) throw UsageError(text);
}

void check_gpu(const GpuOptions& gpu) {
    require(gpu.tricks_mode >= 0,
            "--tricks-mode: expected at least 0, found " + std::to_string(gpu.tricks_mode));
    require(gpu.ubo_slice_limit >= 0,
            "--ubo-slice-limit: expected at least 0, found " + std::to_string(gpu.ubo_slice_limit));
}

/// Whether the engine is the GPU's.
bool check_engine(const Texts& texts, const GpuOptions& gpu, const std::string& table) {
    require(texts.engine == "cpu" || texts.engine == "gpu",
            "--engine: expected cpu or gpu, found \"" + texts.engine + "\"");
    const bool on_gpu = texts.engine == "gpu";
    require(!on_gpu || table.empty(), "--table: expected --engine cpu with it, found gpu");
    check_gpu(gpu);
    return on_gpu;
}

void check_preparation(const Texts& texts, InputRules& rules) {
    if (!texts.mean.empty()) rules.mean = parse_numbers("--mean", texts.mean);
    if (!texts.norm.empty()) rules.norm = parse_numbers("--norm", texts.norm);
    std::string& type = rules.pixel_type;
    if (type == "grey") type = "gray";
    require(type.empty() || type == "rgb" || type == "bgr" || type == "gray" || type == "rgba",
            "--pixel-type: expected rgb, bgr, gray or rgba, found \"" + type + "\"");
}

void check(CompareCommand& command, const Texts& texts) {
    apply(texts, command.plan, command.limits);
    check_preparation(texts, command.rules);
    check_gpu(command.gpu);
}

void check(RunCommand& command, const Texts& texts) {
    apply(texts, command.plan, command.limits);
    command.on_gpu = check_engine(texts, command.gpu, command.table);
    check_preparation(texts, command.rules);
    require(!command.output.empty() || !command.all_layers.empty() || !command.composite.empty(),
            "run: expected --output, --composite or --all-layers, found none of them");
    const std::string extension = extension_of(command.output);
    require(command.output.empty() || extension == ".png" || extension == ".npy",
            "--output: expected a .png or .npy file, found \"" + command.output + "\"");
    require(command.composite.empty() || extension_of(command.composite) == ".png",
            "--composite: expected a .png file, found \"" + command.composite + "\"");
    require(command.output.empty() || command.output != command.composite,
            "--output and --composite: expected two files, found \"" + command.output + "\" twice");
    require(command.repeat >= 1,
            "--repeat: expected at least 1, found " + std::to_string(command.repeat));
    require(!command.resize_output || !command.output.empty(),
            "--resize-output: expected --output with it, found none");
    unsigned char colour[3];
    const bool numbers = command.background.find_first_not_of("0123456789,") == std::string::npos;
    require(!numbers || parse_colour(command.background, colour),
            "--background: expected R,G,B from 0 to 255 or a picture, found \"" +
                command.background + "\"");
}

void check(const ConvertCommand& command) {
    require(command.engines == "cpu" || command.engines == "gpu" || command.engines == "both",
            "--engines: expected cpu, gpu or both, found \"" + command.engines + "\"");
    for (const std::string& shape : command.shapes) {
        std::string name;
        std::vector<int64_t> dims;
        parse_shape(shape, name, dims);
    }
    require(!command.no_verify || (command.data.empty() && !command.layers),
            "--no-verify: expected neither --data nor --layers with it, found one");
}

void check(BenchCommand& command, const Texts& texts) {
    apply(texts, command.plan, command.limits);
    command.on_gpu = check_engine(texts, command.gpu, command.table);
    require(!command.on_gpu || !command.fps, "--fps: expected --engine cpu with it, found gpu");
    require(command.warmup >= 0 && command.warmup <= 1000000,
            "--warmup: expected 0 to 1000000, found " + std::to_string(command.warmup));
    if (command.runs) {
        require(*command.runs >= 1 && *command.runs <= 10000000,
                "--runs: expected 1 to 10000000, found " + std::to_string(*command.runs));
    }
    if (command.duration) {
        require(*command.duration > 0.0 && *command.duration <= 86400.0,
                "--duration: expected seconds above 0, at most 86400, found " +
                    fixed(*command.duration, 3));
    }
    if (command.fps) {
        require(*command.fps >= 0.01 && *command.fps <= 10000.0,
                "--fps: expected 0.01 to 10000, found " + fixed(*command.fps, 3));
    }
}

CLI::App* add_image(CLI::App& app, ImageCommand& command, Texts& texts) {
    CLI::App* image = app.add_subcommand("image", "Run one of the GPU operations on a picture.");
    image->add_option("--op", command.op, std::string("What to do: ") + image_operations + ".")
        ->type_name("NAME")
        ->required();
    image
        ->add_option("--input", command.input,
                     "A PNG or JPEG picture; for yuv2rgb a raw 4:2:0 frame of bytes, plane Y, then "
                     "U, then V; for guided the mask.")
        ->type_name("FILE")
        ->required();
    image->add_option("--guide", command.guide, "The picture along whose edges guided refines.")
        ->type_name("FILE");
    image->add_option("--output", command.output, "A .png file for the result.")
        ->type_name("FILE")
        ->required();
    image
        ->add_option("--size", texts.size,
                     "Size of the result of resize, size of the frame of yuv2rgb.")
        ->type_name("WxH");
    image
        ->add_option("--radius", command.radius,
                     "Reach of the window of box and guided in pixels, 0 to 1024; 8 unless told "
                     "otherwise.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("PIXELS");
    image
        ->add_option("--subsampling", command.subsampling,
                     "guided works on a picture smaller by this factor, 1 to 64; 4 unless told "
                     "otherwise.")
        ->check(CLI::Validator(number_fault_of, ""))
        ->type_name("FACTOR");
    image
        ->add_option("--eps", command.eps,
                     "guided: what is added to the variances of the guide (components 0 to 1); "
                     "the larger, the smoother. 0.001 unless told otherwise.")
        ->check(CLI::Validator(number_fault_of, ""))
        ->type_name("NUMBER");
    image
        ->add_option("--levels", command.levels,
                     "Levels of pyramid, the base included, 1 to 16; 4 unless told otherwise.")
        ->check(CLI::Validator(whole_number_fault, ""))
        ->type_name("COUNT");
    CLI::Option* composite =
        image
            ->add_option("--composite", command.composite,
                         "guided: a .png file for the guide over a new background, by the refined "
                         "mask.")
            ->type_name("FILE");
    image
        ->add_option("--background", command.background,
                     "What the composite lies over: a colour R,G,B of 0 to 255, or a picture.")
        ->type_name("R,G,B|FILE")
        ->needs(composite);
    add_verbose(image, command.verbose);
    image->footer(
        "resize lays the corner pixels of both pictures upon each other. box counts what lies\n"
        "outside the picture as black, so borders darken. guided writes the refined mask in grey,\n"
        "pyramid the grey levels side by side.");
    return image;
}

void check(ImageCommand& command, const Texts& texts) {
    if (!is_image_operation(command.op)) {
        throw UsageError(std::string("--op: expected ") + image_operations + ", found \"" +
                         command.op + "\"");
    }
    if (!texts.size.empty()) command.size = parse_size("--size", texts.size);
    if ((command.op == "resize" || command.op == "yuv2rgb") && !command.size) {
        throw UsageError("--op " + command.op + ": expected --size WxH, found none");
    }
    if (command.op == "guided" && command.guide.empty()) {
        throw UsageError("--op guided: expected --guide FILE, found none");
    }
    if (command.op != "guided" && !command.composite.empty()) {
        throw UsageError("--composite: expected --op guided, found " + command.op);
    }
    if (!command.composite.empty() && command.background.empty()) {
        throw UsageError("--composite: expected --background, found none");
    }
    if (command.radius < 0 || command.radius > 1024) {
        throw UsageError("--radius: expected 0 to 1024, found " + std::to_string(command.radius));
    }
    if (command.levels < 1 || command.levels > 16) {
        throw UsageError("--levels: expected 1 to 16, found " + std::to_string(command.levels));
    }
    if (!(command.subsampling >= 1.0 && command.subsampling <= 64.0)) {
        throw UsageError("--subsampling: expected 1 to 64, found another number");
    }
    if (!(command.eps >= 0.0 && command.eps <= 1.0e4)) {
        throw UsageError("--eps: expected 0 to 10000, found another number");
    }
}

CLI::App* add_gpu_info(CLI::App& app, GpuInfoCommand& command) {
    CLI::App* info = app.add_subcommand(
        "gpu-info", "Show driver, limits, and which ways to a display were tried.");
    add_verbose(info, command.verbose);
    return info;
}

}  // namespace

Command parse_command_line(int argc, char** argv) {
    CLI::App app("Runs, measures and shows neural-network models of the tarno library.", "tarno");
    app.formatter(std::make_shared<HelpFormatter>());
    app.set_help_flag("-h,--help", "Show this help; tarno COMMAND --help shows that of a command.");
    app.set_version_flag("--version", "tarno " TARNO_VERSION, "Show the version.");
    app.require_subcommand(1);
    app.get_formatter()->label("Positionals", "Arguments");
    app.get_formatter()->label("Subcommands", "Commands");
    app.footer(
        "An error is one line on standard error, with exit status 1; 2 when the command line\n"
        "itself is wrong.");

    InfoCommand info_command;
    RunCommand run_command;
    BenchCommand bench_command;
    TuneCommand tune_command;
    ConvertCommand convert_command;
    CompareCommand compare_command;
    ImageCommand image_command;
    GpuInfoCommand gpu_info_command;
    Texts texts;
    CLI::App* info = add_info(app, info_command, texts);
    CLI::App* run = add_run(app, run_command, texts);
    add_bench(app, bench_command, texts);
    CLI::App* tune = add_tune(app, tune_command, texts);
    CLI::App* convert = add_convert(app, convert_command);
    CLI::App* compare = add_compare(app, compare_command, texts);
    CLI::App* image = add_image(app, image_command, texts);
    CLI::App* gpu_info = add_gpu_info(app, gpu_info_command);
    for (CLI::App* sub : app.get_subcommands({})) {
        sub->set_help_flag("-h,--help", "Show this help.");
        sub->group("Commands");
    }

    const char* expected =
        "expected a command: info, run, bench, tune, compare, convert, image or gpu-info";
    if (argc < 2) throw UsageError(std::string(expected) + " (see tarno --help)");
    const std::string first = argv[1];
    const auto commands = app.get_subcommands({});
    const auto is_named = [&](const CLI::App* sub) { return sub->get_name() == first; };
    if (first.compare(0, 1, "-") != 0 && std::none_of(commands.begin(), commands.end(), is_named)) {
        throw UsageError(std::string(expected) + ", found \"" + first + "\" (see tarno --help)");
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        const auto chosen = app.get_subcommands();
        const std::string text = chosen.empty() ? app.help() : chosen[0]->help();
        std::fputs(text.c_str(), stdout);
        throw NothingToDo();
    } catch (const CLI::CallForVersion&) {
        std::puts("tarno " TARNO_VERSION);
        throw NothingToDo();
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        throw UsageError(std::string(error.what()) + " (see tarno " +
                         (chosen.empty() ? "" : chosen[0]->get_name() + " ") + "--help)");
    }

    if (info->parsed()) {
        RunLimits unused;
        apply(texts, info_command.plan, unused);
        return info_command;
    }
    if (run->parsed()) {
        check(run_command, texts);
        return run_command;
    }
    if (tune->parsed()) {
        apply(texts, tune_command.plan, tune_command.limits);
        return tune_command;
    }
    if (convert->parsed()) {
        check(convert_command);
        return convert_command;
    }
    if (compare->parsed()) {
        check(compare_command, texts);
        return compare_command;
    }
    if (image->parsed()) {
        check(image_command, texts);
        return image_command;
    }
    if (gpu_info->parsed()) return gpu_info_command;
    check(bench_command, texts);
    return bench_command;
}

}  // namespace tool
