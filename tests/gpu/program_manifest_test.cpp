// The catalogue's manifest against what the driver says of the linked programs.

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <sstream>

#include "gpu/opengl/glcnn/src/tesk/program_sources.h"
#include "support/gl_fixture.h"

namespace {

using namespace testing_support;

struct Row {
    std::string name;
    int local[3];
    std::string interface;
};

const Row rows[] = {
#define TESK_PROGRAM(name, x, y, z, interface) {name, {x, y, z}, interface},
#define TESK_IN_GROUP(group, name)
#include "gpu/opengl/glcnn/src/tesk/programs/manifest.def"
#undef TESK_PROGRAM
#undef TESK_IN_GROUP
};

/// What sources declare and drivers may leave out of the linked program, having seen that no result
/// depends on it.
const std::map<std::string, std::string> may_be_missing = {
    {"rgba16f_merge_src_with_mask_program", "sampler2D srcImg"},
    {"rgba8_merge_src_with_mask_program", "sampler2D srcImg"},
};

std::set<std::string> items_of(const std::string& interface) {
    std::set<std::string> items;
    for (size_t begin = 0; begin < interface.size();) {
        const size_t end = std::min(interface.find("; ", begin), interface.size());
        items.insert(interface.substr(begin, end - begin));
        begin = end + 2;
    }
    return items;
}

/// An item as reflection tells it: whether an image is read or written is not told.
std::string without_access(const std::string& item) {
    const bool image = item.compare(0, 5, "image") == 0;
    const bool access = image && item.size() > 2 && item[item.size() - 2] == ' ' &&
                        (item.back() == 'r' || item.back() == 'w');
    return access ? item.substr(0, item.size() - 2) : item;
}

std::string resource_name(GLuint program, GLenum interface, GLuint index) {
    char text[200] = "";
    glGetProgramResourceName(program, interface, index, sizeof text, nullptr, text);
    return text;
}

int resource_property(GLuint program, GLenum interface, GLuint index, GLenum property) {
    GLint value = -1;
    glGetProgramResourceiv(program, interface, index, 1, &property, 1, nullptr, &value);
    return value;
}

GLuint resource_count(GLuint program, GLenum interface) {
    GLint count = 0;
    glGetProgramInterfaceiv(program, interface, GL_ACTIVE_RESOURCES, &count);
    return static_cast<GLuint>(count);
}

/// The linked program's interface in the words of the manifest.
std::set<std::string> reflected_items(GLuint program) {
    const std::map<int, std::string> types = {
        {GL_SAMPLER_2D, "sampler2D"},
        {GL_SAMPLER_2D_ARRAY, "sampler2DArray"},
        {GL_IMAGE_2D, "image2D"},
        {GL_IMAGE_2D_ARRAY, "image2DArray"},
        {GL_INT, "int"},
        {GL_FLOAT, "float"},
    };
    std::set<std::string> items;
    for (GLuint i = 0; i < resource_count(program, GL_UNIFORM); ++i) {
        if (resource_property(program, GL_UNIFORM, i, GL_BLOCK_INDEX) >= 0) continue;
        std::string name = resource_name(program, GL_UNIFORM, i);
        const int type = resource_property(program, GL_UNIFORM, i, GL_TYPE);
        std::string item = types.count(type) != 0 ? types.at(type) : std::to_string(type);
        const size_t bracket = name.find('[');
        if (bracket != std::string::npos) {
            name.resize(bracket);
            item += '[';
            item += std::to_string(resource_property(program, GL_UNIFORM, i, GL_ARRAY_SIZE));
            item += ']';
        }
        item += ' ';
        item += name;
        if (type == GL_IMAGE_2D || type == GL_IMAGE_2D_ARRAY) {
            GLint unit = -1;
            glGetUniformiv(program, glGetUniformLocation(program, name.c_str()), &unit);
            item += ' ';
            item += std::to_string(unit);
        }
        items.insert(item);
    }
    const std::pair<GLenum, const char*> blocks[] = {{GL_SHADER_STORAGE_BLOCK, "buffer "},
                                                     {GL_UNIFORM_BLOCK, "ubo "}};
    for (const auto& [interface, word] : blocks) {
        for (GLuint i = 0; i < resource_count(program, interface); ++i) {
            items.insert(
                word + resource_name(program, interface, i) + ' ' +
                std::to_string(resource_property(program, interface, i, GL_BUFFER_BINDING)));
        }
    }
    return items;
}

/// The words that a source has between `layout` and the name of an image or block say whether it is
/// read or written; GL has no question for it.
std::string declared_access(const std::string& source, const std::string& name) {
    std::istringstream lines(source);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 7, "layout(") != 0) continue;
        if (line.find(" " + name + ";") == std::string::npos) continue;
        if (line.find(" readonly ") != std::string::npos) return "r";
        if (line.find(" writeonly ") != std::string::npos) return "w";
    }
    return "?";
}

class ProgramManifestTest : public GpuTest {
protected:
    /// GL's id of the compiled program.
    GLuint linked_program(const std::string& name) {
        const char* source = tesk::programSource(name);
        EXPECT_NE(source, nullptr);
        if (source == nullptr) return 0;
        manager.addComputeProgramFromString(source, name);
        return manager.getComputeProgram(name)->getProgramID();
    }
};

TEST_F(ProgramManifestTest, EveryRowTellsTheLocalSizeOfItsProgram) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const GLuint program = linked_program(row.name);
        GLint local[3] = {0, 0, 0};
        glGetProgramiv(program, GL_COMPUTE_WORK_GROUP_SIZE, local);
        for (int axis = 0; axis < 3; ++axis)
            EXPECT_EQ(local[axis], row.local[axis]) << "axis " << axis;
    }
}

TEST_F(ProgramManifestTest, EveryRowTellsTheInterfaceOfItsProgram) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const GLuint program = linked_program(row.name);
        std::set<std::string> want;
        for (const std::string& item : items_of(row.interface)) want.insert(without_access(item));
        std::set<std::string> got = reflected_items(program);
        const auto missing = may_be_missing.find(row.name);
        if (missing != may_be_missing.end()) {
            EXPECT_EQ(want.count(missing->second), 1u);
            got.insert(missing->second);
        }
        EXPECT_EQ(got, want);
    }
}

TEST_F(ProgramManifestTest, EveryRowTellsWhetherAnImageIsReadOrWritten) {
    for (const Row& row : rows) {
        for (const std::string& item : items_of(row.interface)) {
            if (item.compare(0, 5, "image") != 0) continue;
            std::istringstream words(item);
            std::string type, name, unit, access;
            words >> type >> name >> unit >> access;
            const char* source = tesk::programSource(row.name);
            ASSERT_NE(source, nullptr) << row.name;
            EXPECT_EQ(declared_access(source, name), access) << row.name << ": " << item;
        }
    }
}

TEST_F(ProgramManifestTest, LocalSizesAreEightByEightButForTheListedPrograms) {
    std::map<std::string, std::array<int, 3>> others;
    for (const char* name :
         {"fcOut_deAffine_program", "fcOut_deAffine_to_image_program", "load_fcNetOutput_to_Buffer",
          "init_fcNet_fromBuffer", "fullConnected_operator_program",
          "fullConnected_operator_ssbo_program",
          "fullConnected_operator_ssbo_muti_in_4_out_program", "alignment_argMax_program",
          "alignment_argMax_trans2buffer_program", "alignment_argMax_with_confidence_program",
          "transform_stnNet_ouput_to_buffer_program", "transform_classification_program",
          "get_left_right_eyes_points_program", "merge_left_right_eyes_to_main_program",
          "processEye_program"})
        others[name] = {1, 1, 1};
    others["transform_face_output_program"] = {4, 4, 4};
    others["convert_half_to_float"] = {8, 1, 1};
    others["code_decode"] = {8, 1, 1};
    others["tensor_reshape_step1_program"] = {1, 1, 4};
    others["hands_precoss_downscale_upscale_program"] = {6, 10, 1};
    others["hands_image_to_buf_program"] = {6, 10, 2};
    others["body_landmarks_image_to_buf_program"] = {6, 4, 2};
    others["loadGpuData2CpuData_softmax_program"] = {10, 25, 1};
    others["max_pooling_stride1_program"] = {11, 11, 1};
    others["region2d_image_11x11x55_in_11x154x4_out_para_5x6x4_program"] = {11, 11, 1};
    for (const Row& row : rows) {
        const auto other = others.find(row.name);
        const std::array<int, 3> want =
            other == others.end() ? std::array<int, 3>{8, 8, 1} : other->second;
        EXPECT_EQ((std::array<int, 3>{row.local[0], row.local[1], row.local[2]}), want) << row.name;
        if (other != others.end()) others.erase(other);
    }
    for (const auto& [name, local] : others) ADD_FAILURE() << name << " has no row";
}

TEST_F(ProgramManifestTest, NoNameStandsTwice) {
    std::set<std::string> names;
    for (const Row& row : rows) EXPECT_TRUE(names.insert(row.name).second) << row.name;
    EXPECT_GE(names.size(), 108u);
}

}  // namespace
