#include <gtest/gtest.h>
#include <tarno/model.h>

#include <string>
#include <vector>

#include "hand_made.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using testing_support::AssertRecorder;
using testing_support::TemporaryFile;

std::vector<unsigned char> file_with_id(uint32_t model_id) {
    hand_made::Bytes bytes;
    bytes.u32(0x5555).u32(10011).u32(0).u32(3).u32(model_id).u32(0).u32(0);
    return bytes.zeros(2 * 242).u32(0xaaaa).data;
}

std::string name_of(uint32_t model_id) {
    const TemporaryFile file(file_with_id(model_id));
    ZQNetLoader loader;
    EXPECT_TRUE(loader.LoadFile(file.path(), false));
    return loader.decodeModelID();
}

TEST(ModelIdentity, TheIdIsDecodedIntoApplicationAndVersion) {
    EXPECT_EQ("Face_Key_Points_1.2.3", name_of(101002003));
    EXPECT_EQ("Gesture_Recognition_12.345.678", name_of(212345678));
    EXPECT_EQ("Background_Segmentation_1.0.10", name_of(301000010));
    EXPECT_EQ("Background_Segmentation_99.999.999", name_of(399999999));
}

TEST(ModelIdentity, AnUnknownApplicationLeavesTheUnderscore) {
    EXPECT_EQ("_1.2.3", name_of(1002003));
    EXPECT_EQ("_0.0.0", name_of(0));
    EXPECT_EQ("_94.967.295", name_of(4294967295u));
}

TEST(ModelIdentity, TheApplicationTypeOfTheHeaderHasNoSay) {
    const TemporaryFile file(file_with_id(101002003));
    ZQNetLoader loader;
    ASSERT_TRUE(loader.LoadFile(file.path(), false));
    EXPECT_EQ(3u, loader.getApplicationType());
    EXPECT_EQ("Face_Key_Points_1.2.3", loader.decodeModelID());
}

TEST(ModelIdentity, GetModelVersionCopiesTheNameWithoutATerminator) {
    const TemporaryFile file(file_with_id(101002003));
    std::string out(64, '#');
    AssertRecorder assertions;
    EXPECT_EQ(0u, GetModelVersion(file.path(), out.data()));
    EXPECT_EQ("Face_Key_Points_1.2.3" + std::string(64 - 21, '#'), out);
    EXPECT_EQ(0u, assertions.count());
}

TEST(ModelIdentity, GetModelVersionOfAMissingFileAssertsAndLeavesTheBuffer) {
    std::string out(64, '#');
    AssertRecorder assertions;
    EXPECT_EQ(1u, GetModelVersion("/no/such/model", out.data()));
    EXPECT_EQ(std::string(64, '#'), out);
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Cann't load model file\"", assertions.last().condition);
    EXPECT_EQ("version", assertions.last().source);
    EXPECT_EQ(10, assertions.last().line);
}

TEST(ModelIdentity, TheLongestNameHasTheDocumentedLength) {
    EXPECT_EQ(34u, name_of(399999999).size());
}

}  // namespace
