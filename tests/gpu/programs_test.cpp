// The catalogue as a whole: every name links, groups register what they should and nothing twice.
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <set>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using testing_support::GpuTest;
using testing_support::LogRecorder;

struct CatalogueRow {
    std::string group;
    std::string name;
};

const std::vector<CatalogueRow>& rows() {
    static const std::vector<CatalogueRow> list = {
#define TESK_PROGRAM(name, x, y, z, interface)
#define TESK_IN_GROUP(group, name) {#group, name},
#include "gpu/opengl/glcnn/src/tesk/programs/manifest.def"
#undef TESK_PROGRAM
#undef TESK_IN_GROUP
    };
    return list;
}

std::vector<std::string> names_of(const std::string& group) {
    std::vector<std::string> names;
    for (const CatalogueRow& row : rows()) {
        if (row.group == group) names.push_back(row.name);
    }
    return names;
}

class Catalogue : public GpuTest {};

TEST_F(Catalogue, Has108NamesInFourGroups) {
    EXPECT_EQ(names_of("General").size(), 98u);
    EXPECT_EQ(names_of("Audio").size(), 8u);
    EXPECT_EQ(names_of("FaceDetection").size(), 22u);
    EXPECT_EQ(names_of("PeleeSegment").size(), 13u);
    std::set<std::string> names;
    for (const CatalogueRow& row : rows())
        names.insert(row.name);
    EXPECT_EQ(names.size(), 108u);
    EXPECT_EQ(rows().size() - names.size(), 33u);
}

TEST_F(Catalogue, EveryNameLinks) {
    const tesk::BinFileInfo info = {};
    EXPECT_FALSE(manager.initProgramBinary(info, &manager));
    EXPECT_FALSE(manager.initProgramBinary_Audio(info, &manager));
    EXPECT_FALSE(manager.initProgramBinary_faceDetection(info, &manager));
    EXPECT_FALSE(manager.initProgramBinary_peleeSegment(info, &manager));
    EXPECT_EQ(manager.programCount(), 108);
    for (const CatalogueRow& row : rows()) {
        ASSERT_TRUE(manager.IsExistComputeProgram(row.name)) << row.name;
        GLint linked = 0;
        glGetProgramiv(manager.getComputeProgram(row.name)->getProgramID(), GL_LINK_STATUS,
                       &linked);
        EXPECT_TRUE(linked) << row.name;
    }
}

TEST_F(Catalogue, RegisteringASecondGroupCompilesNothingThatTheFirstBrought) {
    const tesk::BinFileInfo info = {};
    manager.initProgramBinary(info, &manager);
    std::vector<tesk::ComputeProgram*> before;
    for (const std::string& name : names_of("PeleeSegment"))
        before.push_back(manager.getComputeProgram(name).get());
    EXPECT_EQ(manager.programCount(), 98);
    manager.initProgramBinary_peleeSegment(info, &manager);
    EXPECT_EQ(manager.programCount(), 98);
    size_t i = 0;
    for (const std::string& name : names_of("PeleeSegment"))
        EXPECT_EQ(manager.getComputeProgram(name).get(), before[i++]) << name;
}

TEST_F(Catalogue, TheAudioGroupAloneHasNoSampler) {
    manager.initProgramBinary_Audio({}, &manager);
    EXPECT_EQ(manager.programCount(), 8);
    EXPECT_FALSE(manager.IsExistComputeProgram("sampling_program"));
    EXPECT_TRUE(manager.IsExistComputeProgram("audio_classification_program"));
}

TEST_F(Catalogue, AGroupGoesToTheManagerThatIsNamed) {
    tesk::ComputeProgramManager other(1, "other");
    manager.initProgramBinary_Audio({}, &other);
    EXPECT_EQ(manager.programCount(), 0);
    EXPECT_EQ(other.programCount(), 8);
    other.release();
}

}  // namespace
