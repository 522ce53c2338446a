// Whatever is wrong with a file: one line that names it, what was expected and what was found, exit
// status 1, and no output left behind.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/array_files.h"
#include "tools/command.h"
#include "tools/pictures.h"

namespace {

using namespace command_test;
using modelkit::NetBuilder;
using modelkit::Window;
using Words = std::vector<std::string>;

/// More than a refusal may take.
constexpr rlim_t enough_memory = rlim_t{1} << 30;

modelkit::ModelHeader small_header() {
    modelkit::ModelHeader header;
    header.base_w = 16;
    header.base_h = 12;
    return header;
}

class BadInput : public testing::Test {
protected:
    void SetUp() override { write_file(picture, png_file(pattern(16, 12, 3))); }

    void save(const NetBuilder& net) {
        const modelkit::Status saved = net.save(model);
        ASSERT_TRUE(saved.ok()) << saved.message();
    }
    void save_sound_model() {
        NetBuilder net(small_header());
        net.conv(net.input(3), 1, 3, 1, 1, ActivationType_Sigmoid);
        save(net);
    }

    /// Runs and benches the model; both refuse with `parts`, and leave nothing. Without a picture
    /// only the second.
    void expect_model_refused(const Words& parts, const Words& more = {}, bool with_run = true) {
        const Words before = folder.names();
        std::vector<Words> commands = {{"bench", "--model", model, "--runs", "1"}};
        if (with_run) {
            commands.push_back(
                {"run", "--model", model, "--input", picture, "--output", folder / "o.npy"});
        }
        for (Words& words : commands) {
            words.insert(words.end(), more.begin(), more.end());
            const Outcome outcome = run_tarno(words, 60, enough_memory);
            expect_refusal(outcome, 1, parts);
            expect_refusal(outcome, 1, {model, "expected"});
            EXPECT_EQ(outcome.out, "");
        }
        EXPECT_EQ(folder.names(), before);
    }

    /// Runs the sound model over another input; it is refused with `parts`.
    void expect_input_refused(const std::string& input, const Words& parts,
                              const Words& more = {}) {
        const Words before = folder.names();
        Words words = {"run", "--model", model, "--input", input, "--output", folder / "o.png"};
        words.insert(words.end(), more.begin(), more.end());
        const Outcome outcome = run_tarno(words, 60, enough_memory);
        expect_refusal(outcome, 1, parts);
        expect_refusal(outcome, 1, {"expected", "found"});
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(folder.names(), before);
    }

    Folder folder;
    std::string model = folder / "net.zqnet";
    std::string picture = folder / "in.png";
};

// Model files ------------------------------------------------------------------------------------

TEST_F(BadInput, NoSuchModel) {
    expect_refusal(run_tarno({"info", model}), 1, {model, "No such"});
}

TEST_F(BadInput, AFolderAPipeAndADeviceAreNoModels) {
    expect_refusal(run_tarno({"info", folder.path}), 1, {folder.path, "a folder"});
    expect_refusal(run_tarno({"info", "/dev/zero"}, 10), 1, {"/dev/zero", "a device"});
    ASSERT_EQ(mkfifo(model.c_str(), 0600), 0);
    expect_refusal(run_tarno({"info", model}, 10), 1, {model, "a pipe"});
}

TEST_F(BadInput, NotAModel) {
    for (const std::string& bytes : {std::string(), std::string("x"), std::string(999, '\0'),
                                     std::string(5000, '\0'), std::string(5000, '\xff')}) {
        write_file(model, bytes);
        expect_model_refused({"header"});
    }
    expect_refusal(run_tarno({"info", picture}), 1, {picture, "header"});
}

TEST_F(BadInput, AHeaderWithoutLayers) {
    write_file(model, [] {
        std::vector<unsigned char> bytes;
        EXPECT_TRUE(NetBuilder().write(bytes).ok());
        return bytes;
    }());
    expect_model_refused({"layer", "none"});
}

TEST_F(BadInput, ATypeThatIsTooNewForTheVersion) {
    NetBuilder net(small_header());
    net.tensor_input({4});
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(net.write(bytes).ok());
    bytes[4] = 10007 % 256;
    bytes[5] = 10007 / 256;
    write_file(model, bytes);
    expect_model_refused({"TensorInput", "10008", "10007"});
}

TEST_F(BadInput, AnUnknownType) {
    save_sound_model();
    std::string bytes = read_file(model);
    bytes[1002] = 12;
    write_file(model, bytes);
    expect_model_refused({"type 12"});
}

TEST_F(BadInput, AWrongMarkBeforeARecord) {
    save_sound_model();
    std::string bytes = read_file(model);
    bytes[1000] = 0x54;
    write_file(model, bytes);
    expect_model_refused({"message_head == 0x5555"});
}

TEST_F(BadInput, AWrongMarkAfterARecord) {
    save_sound_model();
    std::string bytes = read_file(model);
    bytes.back() = '\0';
    write_file(model, bytes);
    expect_model_refused({"layer id 1", "Conv2D", "message_end"});
}

TEST_F(BadInput, ALegacyFileWithAnUnknownTypeSaysNothingOnStandardOutput) {
    NetBuilder net([] {
        modelkit::ModelHeader header = small_header();
        header.version = 10000;
        return header;
    }());
    net.conv(net.input(3), 1, 3, 1, 1);
    save(net);
    expect_success(run_tarno({"info", model}));
    std::string bytes = read_file(model);
    bytes[1002] = 77;
    write_file(model, bytes);
    expect_model_refused({});
}

// Layers that the engine can't run ---------------------------------------------------------------

struct BadLayer {
    const char* name;
    std::function<void(NetBuilder&)> build;
    Words parts;
    bool takes_a_picture = true;
};

class BadLayers : public BadInput, public testing::WithParamInterface<BadLayer> {};

TEST_P(BadLayers, AreNamed) {
    NetBuilder net(small_header());
    GetParam().build(net);
    save(net);
    expect_model_refused(GetParam().parts, {}, GetParam().takes_a_picture);
    expect_model_refused({"found"}, {}, GetParam().takes_a_picture);
    // What the file holds is still shown.
    const Outcome info = run_tarno({"info", model});
    expect_refusal(info, 1, GetParam().parts);
    EXPECT_NE(info.out.find("layers"), std::string::npos);
}

template <typename Record>
Record& record_of(NetBuilder& net, int id) {
    return static_cast<Record&>(*net.record(id));
}

const BadLayer bad_layers[] = {
    {"InstanceNormalization",
     [](NetBuilder& n) { n.conv(n.instance_normalization(n.input(3)), 1, 1, 1, 0); },
     {"layer 1 (InstanceNormalization)", "CPU engine"}},
    {"ChannelShuffle",
     [](NetBuilder& n) { n.channel_shuffle(n.input(3)); },
     {"layer 1 (ChannelShuffle)", "CPU engine"}},
    {"TensorTranspose",
     [](NetBuilder& n) {
         n.transpose(n.input(3), {1, 0}, {2, 3});
     },
     {"layer 1 (TensorTranspose)", "CPU engine"}},
    {"TensorSqueeze",
     [](NetBuilder& n) {
         n.squeeze(n.input(3), 0, {2, 3});
     },
     {"layer 1 (TensorSqueeze)", "CPU engine"}},
    {"MissingBottom",
     [](NetBuilder& n) {
         n.conv(n.input(3), 1, 3, 1, 1);
         n.record(1)->bottoms[0] = 40;
     },
     {"layer 1 (Conv2D)", "layer 40", "does not have"}},
    {"LaterBottom",
     [](NetBuilder& n) {
         const int image = n.input(3);
         n.conv(image, 3, 3, 1, 1);
         n.conv(image, 3, 3, 1, 1);
         n.record(1)->bottoms[0] = 2;
     },
     {"layer 1 (Conv2D)", "layer 2", "later"}},
    {"ItselfAsBottom",
     [](NetBuilder& n) {
         n.conv(n.input(3), 3, 3, 1, 1);
         n.record(1)->bottoms[0] = 1;
     },
     {"layer 1 (Conv2D)", "layer 1"}},
    {"WrongInputChannels",
     [](NetBuilder& n) {
         const int image = n.input(3);
         const int wide = n.conv(image, 5, 3, 1, 1);
         n.conv(wide, 2, 3, 1, 1);
         n.record(2)->bottoms[0] = 0;
     },
     {"layer 2 (Conv2D)", "5 input channels", "found 3"}},
    {"WrongOutputChannels",
     [](NetBuilder& n) {
         n.pooling(n.input(3), 1, 2, 2);
         n.record(1)->out_shape->channels = 4;
     },
     {"layer 1 (Pooling)", "4 output channels", "found 3"}},
    {"StrideOfZero",
     [](NetBuilder& n) {
         n.conv(n.input(3), 1, 5, 1, 2);
         record_of<ZQLayerInfo_Conv2D>(n, 1).stride_h = 0;
     },
     {"layer 1 (Conv2D)", "stride", "1x0"}},
    {"PoolingStrideOfZero",
     [](NetBuilder& n) {
         n.pooling(n.input(3), 1, 2, 2);
         record_of<ZQLayerInfo_Pooling>(n, 1).stride_w = 0;
     },
     {"layer 1 (Pooling)", "stride", "0x2"}},
    {"KernelOfZero",
     [](NetBuilder& n) {
         n.pooling(n.input(3), 1, 2, 2);
         record_of<ZQLayerInfo_Pooling>(n, 1).kernel_w = 0;
     },
     {"layer 1 (Pooling)", "kernel", "0x2"}},
    {"DilationOfZero",
     [](NetBuilder& n) {
         n.conv(n.input(3), 1, 3, 1, 1);
         record_of<ZQLayerInfo_Conv2D>(n, 1).dilation_w = 0;
     },
     {"layer 1 (Conv2D)", "dilation", "0x1"}},
    {"StrideLargerThanTheInput",
     [](NetBuilder& n) {
         n.conv(n.input(3), 1, 5, 1, 2);
         record_of<ZQLayerInfo_Conv2D>(n, 1).stride_w = 17;
     },
     {"layer 1 (Conv2D)", "1x12x0"}},
    {"KernelLargerThanTheInput",
     [](NetBuilder& n) {
         n.depthwise(n.input(3), 3, 1, 1);
         auto& record = record_of<ZQLayerInfo_DepthWiseConv2D>(n, 1);
         record.dilation_w = 30;
     },
     {"layer 1 (DepthWiseConv2D)", "18x14", "61x3"}},
    {"PaddingThatCutsAllAway",
     [](NetBuilder& n) {
         n.deconvolution(n.input(3), 1, 4, 2, 1);
         auto& record = record_of<ZQLayerInfo_Conv2DTranspose>(n, 1);
         record.pad_h = 30;
     },
     {"layer 1 (Conv2DTranspose)", "1x-34x32"}},
    {"UnknownActivation",
     [](NetBuilder& n) {
         n.conv(n.input(3), 1, 3, 1, 1);
         record_of<ZQLayerInfo_Conv2D>(n, 1).activation = 5;
     },
     {"layer 1 (Conv2D)", "activation", "kind 5"}},
    {"ActivationOfKindNone",
     [](NetBuilder& n) {
         n.activation(n.input(3), ActivationType_ReLU);
         record_of<ZQLayerInfo_Activation>(n, 1).activation_type = 0;
     },
     {"layer 1 (Activation)", "kind 0"}},
    {"SoftMaxOverAMap",
     [](NetBuilder& n) { n.activation(n.input(3), ActivationType_SoftMax); },
     {"layer 1 (Activation)", "SoftMax", "3x12x16"}},
    {"UnknownPooling",
     [](NetBuilder& n) {
         n.pooling(n.input(3), 1, 2, 2);
         record_of<ZQLayerInfo_Pooling>(n, 1).pool_type = 2;
     },
     {"layer 1 (Pooling)", "type 2"}},
    {"UnknownEltwise",
     [](NetBuilder& n) {
         const int image = n.input(3);
         n.eltwise({image, image});
         record_of<ZQLayerInfo_ElementWiseOperator>(n, 1).operator_type = 1;
     },
     {"layer 1 (ElementWiseOperator)", "type 1"}},
    {"EltwiseOfDifferentSizes",
     [](NetBuilder& n) {
         const int image = n.input(3);
         const int small = n.pooling(image, 1, 2, 2);
         n.eltwise({image, image});
         n.record(2)->bottoms[1] = static_cast<unsigned short>(small);
     },
     {"layer 2 (ElementWiseOperator)", "3x12x16", "3x6x8"}},
    {"EltwiseOfOne",
     [](NetBuilder& n) {
         const int image = n.input(3);
         n.eltwise({image, image});
         n.record(1)->bottom_count = 1;
         n.record(1)->bottoms[1] = 0;
         record_of<ZQLayerInfo_ElementWiseOperator>(n, 1).in_shapes[1] = {0, 0, 0};
     },
     {"layer 1 (ElementWiseOperator)", "2 bottoms", "found 1"}},
    {"ConcatOfDifferentSizes",
     [](NetBuilder& n) {
         const int image = n.input(3);
         const int small = n.pooling(image, 1, 2, 2);
         n.concat({image, image});
         n.record(2)->bottoms[1] = static_cast<unsigned short>(small);
     },
     {"layer 2 (Concatenate)", "axis 0", "3x12x16", "3x6x8"}},
    {"ConcatAlongAnUnknownAxis",
     [](NetBuilder& n) {
         const int image = n.input(3);
         n.concat({image, image});
         record_of<ZQLayerInfo_Concatenate>(n, 1).axis = 3;
     },
     {"layer 1 (Concatenate)", "axis", "found 3"}},
    {"UpsamplingByThree",
     [](NetBuilder& n) {
         n.upsampling(n.input(3), 2.0);
         record_of<ZQLayerInfo_Upsampling>(n, 1).scale = 0x4200;
     },
     {"layer 1 (Upsampling)", "2, 4 or 8", "3.0"}},
    {"UpsamplingOfUnknownMode",
     [](NetBuilder& n) {
         n.upsampling(n.input(3), 2.0);
         record_of<ZQLayerInfo_Upsampling>(n, 1).mode = 7;
     },
     {"layer 1 (Upsampling)", "mode 7"}},
    {"PixelShuffleThatDoesNotDivide",
     [](NetBuilder& n) {
         n.pixel_shuffle(n.input(4), 2.0);
         record_of<ZQLayerInfo_PixelShuffle>(n, 1).upscale_factor = 0x4200;
     },
     {"layer 1 (PixelShuffle)", "divisible by 9", "found 4"}},
    {"PixelShuffleByNothing",
     [](NetBuilder& n) {
         n.pixel_shuffle(n.input(4), 2.0);
         record_of<ZQLayerInfo_PixelShuffle>(n, 1).upscale_factor = 0;
     },
     {"layer 1 (PixelShuffle)", "above 0"}},
    {"DenseLayerOverAnotherSize",
     [](NetBuilder& n) {
         n.fully_connected(n.tensor_input({24}), 24, 4);
         record_of<ZQLayerInfo_TensorInput>(n, 0).out_tensor.dims[0] = 23;
     },
     {"layer 1 (FullConnection)", "24 inputs", "23"},
     false},
    {"LstmOverAnotherNumberOfFeatures",
     [](NetBuilder& n) {
         n.lstm(n.tensor_input({7, 5}), 5, 3);
         record_of<ZQLayerInfo_TensorInput>(n, 0).out_tensor.dims[1] = 6;
     },
     {"layer 1 (LSTM)", "5 values", "6 in 7x1x6"},
     false},
    {"ReshapeToAnotherSize",
     [](NetBuilder& n) {
         n.reshape(n.tensor_input({3, 4}), {1, 12});
         record_of<ZQLayerInfo_TensorReshape>(n, 1).out_tensor.dims[1] = 13;
     },
     {"layer 1 (TensorReshape)", "12 elements", "found 13"},
     false},
    {"InputOfSizeZero",
     [](NetBuilder& n) {
         n.input(3);
         n.record(0)->out_shape->scale_x = 0;
     },
     {"layer 0 (Input)", "relative size"}},
    {"InputOfInfiniteSize",
     [](NetBuilder& n) {
         n.input(3);
         n.record(0)->out_shape->scale_y = 0x7c00;
     },
     {"layer 0 (Input)", "relative size"}},
    {"InputWithoutChannels",
     [](NetBuilder& n) {
         n.input(3);
         n.record(0)->out_shape->channels = 0;
     },
     {"layer 0 (Input)", "0x12x16"}},
    {"InputIndexBeyondTheLayers",
     [](NetBuilder& n) {
         n.input(3);
         record_of<ZQLayerInfo_Input>(n, 0).input_index = 9;
     },
     {"layer 0 (Input)", "input index", "found 9"}},
    {"TwoInputsOfOneIndex",
     [](NetBuilder& n) {
         n.input(3);
         n.input(3);
         record_of<ZQLayerInfo_Input>(n, 1).input_index = 0;
     },
     {"layer 1 (Input)", "index 0"}},
    {"NoInput",
     [](NetBuilder& n) {
         const int image = n.input(3);
         n.activation(image, ActivationType_ReLU);
         n.record(1)->bottoms[0] = 1;
     },
     {"layer 1 (Activation)", "layer 1"}},
    {"TensorsOfTooMuchMemory",
     [](NetBuilder& n) {
         int last = n.input(3);
         last = n.conv(last, 4, 1, 1, 0);
         for (int i = 0; i < 5; ++i)
             last = n.upsampling(last, 8.0);
     },
     {"Upsampling", "GiB"}},
};

INSTANTIATE_TEST_SUITE_P(Tools, BadLayers, testing::ValuesIn(bad_layers),
                         [](const testing::TestParamInfo<BadLayer>& info) {
                             return info.param.name;
                         });

TEST_F(BadInput, TwoLayersOfOneId) {
    NetBuilder net(small_header());
    const int image = net.input(3);
    net.activation(image, ActivationType_ReLU);
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(net.write(bytes).ok());
    // The last record once more.
    const std::vector<unsigned char> last(bytes.begin() + 1000 + 16, bytes.end());
    bytes.insert(bytes.end(), last.begin(), last.end());
    write_file(model, bytes);
    expect_model_refused({"layer 1 (Activation)", "id once", "two layers"});
}

TEST_F(BadInput, MemoryAndWorkBeyondTheLimits) {
    save_sound_model();
    expect_model_refused({"layer 1 (Conv2D)", "1.0 KiB", "--memory-limit"},
                         {"--memory-limit", "1K"});
    expect_model_refused({"layer 1 (Conv2D)", "steps", "--work-limit"}, {"--work-limit", "5K"});
    expect_model_refused({"layer 0 (Input)", "4 GiB", "65535"}, {"--size", "65535x65535"});
    expect_model_refused({"2.0 GiB", "--memory-limit"}, {"--size", "16000x16000"});
}

/// No weight stands behind the work of a pooling: a few bytes ask for hours.
TEST_F(BadInput, APoolingWindowAsLargeAsACity) {
    NetBuilder net(small_header());
    net.pooling(net.input(3), 0, Window::square(9000, 1, 4500));
    save(net);
    expect_model_refused({"layer 1 (Pooling)", "steps", "--work-limit"});
}

// Inputs -----------------------------------------------------------------------------------------

TEST_F(BadInput, PicturesThatCantBeRead) {
    save_sound_model();
    expect_input_refused(folder / "none.png", {"none.png", "No such"});
    expect_input_refused(folder.path, {folder.path, "a folder"});
    expect_input_refused(model, {model, "PNG or JPEG"});
    const std::string bad = folder / "bad.png";
    const std::string whole = png_file(pattern(40, 30, 3));
    for (const size_t size : {size_t{0}, size_t{1}, size_t{8}, size_t{20}, size_t{33}, size_t{60},
                              whole.size() / 2, whole.size() - 20}) {
        write_file(bad, whole.substr(0, size));
        expect_input_refused(bad, {bad});
    }
    write_file(bad, std::string("GIF89a") + std::string(100, 'x'));
    expect_input_refused(bad, {bad, "PNG or JPEG"});
}

TEST_F(BadInput, ACutJpegIsNotFilledWithGrey) {
    save_sound_model();
    const std::string bad = folder / "bad.jpg";
    const std::string whole = jpeg_file(pattern(64, 48, 3));
    for (size_t size = 2; size < whole.size(); size += 97) {
        write_file(bad, whole.substr(0, size));
        expect_input_refused(bad, {bad});
    }
}

TEST_F(BadInput, PicturesOfAbsurdSize) {
    save_sound_model();
    const std::string bad = folder / "bad.png";
    for (const uint32_t side : {20000u, 65535u, 1u << 24, 0x7fffffffu, 0xffffffffu}) {
        write_file(bad, png_start(side, side, 3) + png_chunk("IDAT", std::string(50, '\0')) +
                            png_chunk("IEND", ""));
        expect_input_refused(bad, {bad});
    }
    // Not absurd by itself, but no file of this size can hold it.
    write_file(bad, png_start(8000, 8000, 4) + png_chunk("IDAT", std::string(50, '\0')) +
                        png_chunk("IEND", ""));
    expect_input_refused(bad, {bad, "8000 x 8000"});
}

TEST_F(BadInput, ChannelsThatDoNotFit) {
    save_sound_model();
    expect_input_refused(picture, {model, "layer 0 (Input)", "3 channels", "found 1"},
                         {"--pixel-type", "gray"});
    expect_input_refused(picture, {"layer 0 (Input)", "--mean", "found 2"}, {"--mean", "1,2"});
    expect_input_refused(picture, {"layer 0 (Input)", "--norm", "found 4"}, {"--norm", "1,2,3,4"});
    const std::string array = folder / "a.npy";
    write_file(array, npy_file("<f4", "(2, 1, 1)", raw<float>({1, 2})));
    expect_input_refused(array, {array, "layer 0 (Input)", "3 channels", "2x1x1"});

    NetBuilder net(small_header());
    net.conv(net.input(7), 1, 3, 1, 1);
    save(net);
    expect_input_refused(picture, {"layer 0 (Input)", "1, 3 or 4 channels", "found 7"});
}

TEST_F(BadInput, NumberOfInputs) {
    save_sound_model();
    expect_input_refused(picture, {model, "1 input", "found 2"}, {"--input", picture});
}

TEST_F(BadInput, APictureForATensorInput) {
    NetBuilder net(small_header());
    net.lstm(net.tensor_input({7, 5}), 5, 3);
    save(net);
    expect_input_refused(picture, {picture, "layer 0 (TensorInput)", ".npy"});
    const std::string array = folder / "a.npy";
    write_file(array, npy_file("<f4", "(1, 6)", raw<float>({1, 2, 3, 4, 5, 6})));
    expect_input_refused(array, {array, "layer 0 (TensorInput)", "5 numbers", "1x6"});
}

TEST_F(BadInput, ArraysThatCantBeRead) {
    save_sound_model();
    const std::string array = folder / "a.npy";
    const std::string data = raw(std::vector<float>(12, 1.0f));
    const std::string sound = npy_file("<f4", "(3, 2, 2)", data);
    const std::vector<std::pair<std::string, std::string>> files = {
        {sound.substr(0, 6), "header"},
        {sound.substr(0, 9), "header"},
        {sound.substr(0, 40), "header"},
        {sound.substr(0, sound.size() - 1), "48 bytes"},
        {sound + "x", "48 bytes"},
        {npy_file(">f4", "(3, 2, 2)", data), ">f4"},
        {npy_file("<i4", "(3, 2, 2)", data), "<i4"},
        {npy_file("|O", "(3, 2, 2)", data), "|O"},
        {npy_file("<f4", "(3, 2, 2)", data, true), "Fortran"},
        {npy_file("<f4", "()", data.substr(0, 4)), "1 to 3 dimensions"},
        {npy_file("<f4", "(3, 2, 2, 1)", data), "1 to 3 dimensions"},
        {npy_file("<f4", "(3, 0, 2)", ""), "at least 1"},
        {npy_file("<f4", "(3, -2, -2)", data), "at least 1"},
        {npy_file("<f4", "(4294967296, 4294967296, 3)", data), "data of its shape"},
        {npy_file("<f4", "(99999999999999999999, 2, 2)", data), "shape"},
        {npy_file("<f4", "(3, 2, 2", data), "shape"},
        {npy_file("<f4", "(3, two, 2)", data), "shape"},
        {npy_file("<f4", "3", data), "shape"},
    };
    for (const auto& [bytes, part] : files) {
        write_file(array, bytes);
        expect_input_refused(array, {array, part});
    }
    std::string other_version = sound;
    other_version[6] = 2;
    write_file(array, other_version);
    expect_input_refused(array, {array, "1.0", "2.0"});
}

// Outputs ----------------------------------------------------------------------------------------

TEST_F(BadInput, OutputsThatCantBeWritten) {
    save_sound_model();
    const Words run = {"run", "--model", model, "--input", picture};
    const auto expect_refused = [&](const Words& more, const Words& parts) {
        const Words before = folder.names();
        Words words = run;
        words.insert(words.end(), more.begin(), more.end());
        expect_refusal(run_tarno(words), 1, parts);
        EXPECT_EQ(folder.names(), before);
    };
    expect_refused({"--output", folder / "none/o.png"}, {"none/o.png", "place to write"});
    std::filesystem::create_directory(folder / "d.png");
    expect_refused({"--output", folder / "d.png"}, {"d.png", "a folder"});
    expect_refused({"--all-layers", picture}, {picture, "folder"});
    expect_refused({"--all-layers", folder / "none/d"}, {"none/d"});
    // The first file is not written when the second can't be.
    expect_refused({"--output", folder / "o.png", "--composite", folder / "none/c.png"},
                   {"none/c.png"});
    expect_refused({"--output", folder / "o.png", "--layer", "9"}, {model, "id of a layer", "9"});
    expect_refused({"--composite", folder / "c.png", "--background", folder / "none.png"},
                   {"none.png"});
}

TEST_F(BadInput, ChannelsThatAPngOrACompositeCantHave) {
    NetBuilder net(small_header());
    net.conv(net.input(3), 2, 3, 1, 1);
    save(net);
    expect_input_refused(picture,
                         {"layer 1 (Conv2D)", "1 or 3 output channels", "found 2", ".npy"});
    const Words words = {"run",   "--model",     model,           "--input",
                         picture, "--composite", folder / "c.png"};
    expect_refusal(run_tarno(words), 1, {"layer 1 (Conv2D)", "1 output channel", "found 2"});
}

TEST_F(BadInput, AnArrayHasNoSizeForTheOutput) {
    save_sound_model();
    const std::string array = folder / "a.npy";
    write_file(array, npy_file("<f4", "(3, 2, 2)", raw(std::vector<float>(12, 1.0f))));
    expect_input_refused(array, {array, "a picture"}, {"--resize-output"});
}

}  // namespace
