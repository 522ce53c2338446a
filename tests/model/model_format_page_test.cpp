// Keeps the annotated dump in docs/model-format.md true.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "hand_made.h"

namespace {

std::vector<unsigned char> example_file() {
    modelkit::ModelHeader header;
    header.application_type = 3;
    header.model_id = 301000010;
    modelkit::NetBuilder net(header);
    const int image = net.input(1);
    net.conv(image, 2, 1, 1, 0, ActivationType_ReLU, {{1.0f, -2.0f}, {0.5f, 0.0f}});
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(net.write(bytes));
    return bytes;
}

struct Field {
    size_t size;
    const char* meaning;
};

const Field FIELDS[] = {
    {4, "head_marker 0x5555"},
    {4, "version 10011"},
    {4, "gesture_mode 0"},
    {4, "application_type 3"},
    {4, "model_id 301000010: Background_Segmentation_1.0.10"},
    {4, "model_base_w 256"},
    {4, "model_base_h 256"},
    {968, "reserved"},
    {4, "end_marker 0xaaaa"},
    {2, "message_head 0x5555"},
    {2, "message_type 0: Input"},
    {2, "id 0"},
    {6, "out_shape: 1 times the width, 1 times the height, 1 channel"},
    {2, "input_index 0"},
    {2, "message_end 0xaaaa"},
    {2, "message_head 0x5555"},
    {2, "message_type 1: Conv2D"},
    {2, "id 1"},
    {2, "bottom 0"},
    {6, "out_shape: 1 times the width, 1 times the height, 2 channels"},
    {6, "in_shape: 1 times the width, 1 times the height, 1 channel"},
    {4, "kernel_w 1, kernel_h 1"},
    {4, "pad_w 0, pad_h 0"},
    {4, "stride_w 1, stride_h 1"},
    {4, "dilation_w 1, dilation_h 1"},
    {2, "has_bias 1"},
    {2, "activation 2: ReLU"},
    {2, "groups 1"},
    {20, "reserved"},
    {4, "weights 1.0, -2.0"},
    {4, "bias 0.5, 0.0"},
    {2, "message_end 0xaaaa"},
};

std::string annotated_dump(const std::vector<unsigned char>& bytes) {
    std::ostringstream dump;
    size_t at = 0;
    for (const Field& field : FIELDS) {
        std::string hex;
        for (size_t i = 0; i < field.size && at + i < bytes.size(); ++i) {
            char text[4];
            std::snprintf(text, sizeof(text), i == 0 ? "%02x" : " %02x", bytes[at + i]);
            hex += text;
        }
        if (field.size > 6) {
            // Long fields are zeros here, and said so.
            const bool zeros = hex.find_first_not_of("0 ") == std::string::npos;
            hex = zeros ? std::to_string(field.size) + " times 00" : "not zeros";
        }
        char offset[16];
        std::snprintf(offset, sizeof(offset), "%04zx", at);
        hex.resize(std::max<size_t>(hex.size(), 18), ' ');
        dump << offset << "  " << hex << "  " << field.meaning << "\n";
        at += field.size;
    }
    EXPECT_EQ(at, bytes.size()) << "the fields make up the whole file";
    return dump.str();
}

TEST(ModelFormatPage, TheDumpIsThatOfTheFileThatModelkitWrites) {
    const std::string dump = annotated_dump(example_file());
    std::ofstream(TARNO_BINARY_DIR "/model-format-dump.txt") << dump;

    std::ifstream in(TARNO_SOURCE_DIR "/docs/model-format.md");
    const std::string page{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::string fence = "```hexdump\n";
    const size_t begin = page.find(fence);
    ASSERT_NE(std::string::npos, begin);
    const size_t end = page.find("```", begin + fence.size());
    ASSERT_NE(std::string::npos, end);
    EXPECT_EQ(dump, page.substr(begin + fence.size(), end - begin - fence.size()));
}

TEST(ModelFormatPage, TheFileIsTheOneThatTheTablesDescribe) {
    hand_made::Bytes bytes;
    bytes.u32(0x5555).u32(10011).u32(0).u32(3).u32(301000010).u32(256).u32(256);
    bytes.zeros(2 * 242).u32(0xaaaa);
    bytes.list({0x5555, 0, 0, 0x3c00, 0x3c00, 1, 0, 0xaaaa});
    bytes.list({0x5555, 1, 1, 0, 0x3c00, 0x3c00, 2, 0x3c00, 0x3c00, 1});
    bytes.list({1, 1, 0, 0, 1, 1, 1, 1, 1, 2, 1}).zeros(10);
    bytes.list({0x3c00, 0xc000, 0x3800, 0x0000, 0xaaaa});
    EXPECT_EQ(bytes.data, example_file());
}

}  // namespace
