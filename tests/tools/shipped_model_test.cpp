// The shipped model against a forward pass in double that knows nothing of this library.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "tools/array_files.h"
#include "tools/command.h"

namespace {

using namespace command_test;

const std::string model = TARNO_SOURCE_DIR "/assets/models/portrait_segmentation.zqnet";
const std::string frame = TARNO_SOURCE_DIR "/tests/data/portrait_input_256.png";

/// 256 x 256 float32 numbers behind a header of any length, as `tools/train/reference.py` writes
/// them.
std::vector<float> reference_mask() {
    const std::string file = read_file(TARNO_SOURCE_DIR "/tests/data/portrait_mask_reference.npy");
    std::vector<float> values(256 * 256);
    const size_t bytes = values.size() * sizeof(float);
    if (file.size() < bytes) {
        ADD_FAILURE() << "no reference mask";
        return values;
    }
    std::memcpy(values.data(), file.data() + file.size() - bytes, bytes);
    return values;
}

std::vector<float> mask_of(const std::vector<std::string>& extra) {
    const Folder folder;
    const std::string out = folder / "mask.npy";
    std::vector<std::string> words = {
        "run",    "--model", model,      "--input", frame, "--mean", "123.675,116.28,103.53",
        "--norm", "1/255",   "--output", out};
    words.insert(words.end(), extra.begin(), extra.end());
    expect_success(run_tarno(words));
    return read_array(out).values;
}

void expect_the_same_picture(const std::vector<float>& expected, const std::vector<float>& found) {
    ASSERT_EQ(expected.size(), found.size());
    // Half a grey level of an 8-bit mask: below it the picture is the same but for ties.
    const float tolerance = 0.5f / 255.0f;
    size_t person = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_NEAR(expected[i], found[i], tolerance) << i;
        person += found[i] > 0.5f ? 1 : 0;
    }
    // A person, not an empty or a full picture.
    EXPECT_GT(person, expected.size() / 4);
    EXPECT_LT(person, expected.size() * 3 / 4);
}

TEST(ShippedModel, MakesTheMaskOfTheForwardPassInDouble) {
    expect_the_same_picture(reference_mask(), mask_of({}));
}

TEST(ShippedModel, MakesItWithATunedTableToo) {
    const Folder folder;
    const std::string table = folder / "table.h";
    expect_success(run_tarno({"tune", "--model", model, "--output", table}));
    expect_the_same_picture(reference_mask(), mask_of({"--table", table}));
}

TEST(ShippedModel, IsSmall) {
    EXPECT_LE(read_file(model).size(), 600u * 1000u);
}

}  // namespace
