// Contexts by number, the clean-up of every failing step, and real drivers that are too old.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>
#include <tarno/log.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/gl_platform.h"
#include "support/recorders.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing_support::LogRecorder;

/// Writes down every call. One step may be told to fail.
class FakePlatform : public Tarno::GLPlatform {
public:
    FakePlatform() { Tarno::SetGLPlatform(this); }
    ~FakePlatform() override { Tarno::SetGLPlatform(nullptr); }

    std::vector<std::string> calls;
    std::string failing;
    std::string version = "4.3.0 a driver";
    unsigned int loader_complaint = 0;

    bool registerClass(const std::string& class_name) override {
        return step("registerClass", class_name);
    }
    void unregisterClass(const std::string& class_name) override {
        step("unregisterClass", class_name);
    }
    void* createWindow(const std::string& class_name, const std::string& title) override {
        return step("createWindow", class_name + " " + title) ? handle(1) : nullptr;
    }
    void destroyWindow(void* window) override { step("destroyWindow", name(window)); }
    void* getDeviceContext(void* window) override {
        return step("getDeviceContext", name(window)) ? handle(2) : nullptr;
    }
    void releaseDeviceContext(void* window, void* device_context) override {
        step("releaseDeviceContext", name(window) + " " + name(device_context));
    }
    int choosePixelFormat(void* device_context) override {
        return step("choosePixelFormat", name(device_context)) ? 7 : 0;
    }
    bool setPixelFormat(void* device_context, int format) override {
        return step("setPixelFormat", name(device_context) + " " + std::to_string(format));
    }
    void* createContext(void* device_context) override {
        return step("createContext", name(device_context)) ? handle(3) : nullptr;
    }
    void deleteContext(void* context) override { step("deleteContext", name(context)); }
    bool makeCurrent(void* device_context, void* context) override {
        return step("makeCurrent", name(device_context) + " " + name(context));
    }
    unsigned int lastError() override { return 4711; }
    unsigned int loadFunctions() override {
        step("loadFunctions", "");
        return loader_complaint;
    }
    const char* versionText() override {
        if (version == "throw") throw std::string("no version");
        return version.c_str();
    }

private:
    bool step(const std::string& operation, const std::string& arguments) {
        calls.push_back(arguments.empty() ? operation : operation + " " + arguments);
        return operation != failing;
    }
    void* handle(size_t number) { return &handles[number]; }
    std::string name(const void* address) const {
        if (address == &handles[1]) return "window";
        if (address == &handles[2]) return "dc";
        if (address == &handles[3]) return "context";
        return address == nullptr ? "null" : "unknown";
    }
    char handles[4] = {};
};

/// An id of its own that is given back when the test ends.
struct Id {
    unsigned int number = 0;
    _TN_Result result;
    Id() { result = tesk_Init(&number); }
    ~Id() { tesk_UnInit(number); }
};

std::vector<std::string> errors(const LogRecorder& log) {
    std::vector<std::string> texts;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.tag, "Tarno");
        if (line.level == Tarno::LogLevel::Error) texts.push_back(line.text);
    }
    return texts;
}

TEST(ContextTable, IdsBeginAtOneAndTheSlotFreedLastIsUsedFirst) {
    FakePlatform platform;
    unsigned int first = 0, second = 0, third = 0;
    EXPECT_EQ(tesk_Init(&first), TN_Result_Success);
    EXPECT_EQ(tesk_Init(&second), TN_Result_Success);
    EXPECT_EQ(tesk_Init(&third), TN_Result_Success);
    EXPECT_EQ(first, 1u);
    EXPECT_EQ(second, 2u);
    EXPECT_EQ(third, 3u);
    EXPECT_EQ(tesk_UnInit(2), TN_Result_Success);
    EXPECT_EQ(tesk_UnInit(1), TN_Result_Success);
    unsigned int id = 0;
    tesk_Init(&id);
    EXPECT_EQ(id, 1u);
    tesk_Init(&id);
    EXPECT_EQ(id, 2u);
    // In the opposite order, so that the next test begins with id 1 again.
    for (const unsigned int used : {3u, 2u, 1u})
        EXPECT_EQ(tesk_UnInit(used), TN_Result_Success);
}

TEST(ContextTable, AnIdNeverGivenOrGivenBackIsAFailureAndChangesNothing) {
    FakePlatform platform;
    Id id;
    platform.calls.clear();
    EXPECT_EQ(tesk_UnInit(0), TN_Result_Failure);
    EXPECT_EQ(tesk_UnInit(77), TN_Result_Failure);
    EXPECT_THAT(platform.calls, IsEmpty());
    EXPECT_EQ(tesk_UnInit(id.number), TN_Result_Success);
    platform.calls.clear();
    EXPECT_EQ(tesk_UnInit(id.number), TN_Result_Failure);
    EXPECT_THAT(platform.calls, IsEmpty());
}

TEST(ContextTable, AFailedInitKeepsItsIdUntilItIsGivenBack) {
    FakePlatform platform;
    platform.failing = "createWindow";
    unsigned int id = 0;
    EXPECT_EQ(tesk_Init(&id), TN_Result_Failure);
    EXPECT_EQ(id, 1u);
    unsigned int next = 0;
    EXPECT_EQ(tesk_Init(&next), TN_Result_Failure);
    EXPECT_EQ(next, 2u);
    EXPECT_EQ(tesk_UnInit(next), TN_Result_Success);
    platform.calls.clear();
    EXPECT_EQ(tesk_UnInit(id), TN_Result_Success);
    EXPECT_THAT(platform.calls, ElementsAre("makeCurrent null null"));
}

TEST(ContextTable, ANullIdIsAFailure) {
    FakePlatform platform;
    EXPECT_EQ(tesk_Init(nullptr), TN_Result_Failure);
    EXPECT_THAT(platform.calls, IsEmpty());
}

TEST(Context, IsMadeStepByStepAndTornDownInTheOppositeOrder) {
    FakePlatform platform;
    Id id;
    EXPECT_EQ(id.result, TN_Result_Success);
    EXPECT_THAT(platform.calls,
                ElementsAre("registerClass tarno1", "createWindow tarno1 AITarno",
                            "getDeviceContext window", "choosePixelFormat dc",
                            "setPixelFormat dc 7", "createContext dc", "makeCurrent dc context",
                            "loadFunctions"));
    platform.calls.clear();
    EXPECT_EQ(tesk_UnInit(id.number), TN_Result_Success);
    EXPECT_THAT(platform.calls,
                ElementsAre("makeCurrent null null", "deleteContext context",
                            "releaseDeviceContext window dc", "destroyWindow window",
                            "unregisterClass tarno1"));
}

TEST(Context, ASecondInitOfALiveObjectSucceedsAndCreatesNothing) {
    FakePlatform platform;
    tesk::Tesk context;
    EXPECT_EQ(context.tesk_init_win(9), TN_Result_Success);
    platform.calls.clear();
    EXPECT_EQ(context.tesk_init_win(9), TN_Result_Success);
    EXPECT_THAT(platform.calls, IsEmpty());
    context.tesk_uninit_win(9);
}

TEST(Context, EntryPointsAreLoadedOnceForEachObject) {
    FakePlatform platform;
    tesk::Tesk context;
    context.init_glew();
    context.init_glew();
    EXPECT_THAT(platform.calls, ElementsAre("loadFunctions"));
}

TEST(Context, AComplaintOfTheLoaderIsLoggedAndIgnored) {
    FakePlatform platform;
    platform.loader_complaint = 4;
    LogRecorder log;
    Id id;
    EXPECT_EQ(id.result, TN_Result_Success);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[0].text, "Opengl Context initial Failed!");
    EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
    EXPECT_EQ(log.lines[1].text, "glinfo version: 4.3.0 a driver");
}

struct FailingStep {
    const char* operation;
    std::vector<std::string> errors;
    std::vector<std::string> clean_up;  ///< the calls behind the failing one
};

class FailingContext : public testing::TestWithParam<FailingStep> {};

TEST_P(FailingContext, LogsAndCleansUpAsTheStepAsks) {
    FakePlatform platform;
    platform.failing = GetParam().operation;
    LogRecorder log;
    {
        Id id;
        EXPECT_EQ(id.result, TN_Result_Failure);
        EXPECT_THAT(errors(log), testing::ElementsAreArray(GetParam().errors));
        size_t at = 0;
        while (at < platform.calls.size() &&
               platform.calls[at].rfind(GetParam().operation, 0) != 0) {
            ++at;
        }
        ASSERT_LT(at, platform.calls.size());
        const std::vector<std::string> behind(
            platform.calls.begin() + static_cast<std::ptrdiff_t>(at) + 1, platform.calls.end());
        EXPECT_THAT(behind, testing::ElementsAreArray(GetParam().clean_up));
        platform.calls.clear();
    }
    // Nothing was kept, so giving the id back only clears the current context.
    EXPECT_THAT(platform.calls, ElementsAre("makeCurrent null null"));
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, FailingContext,
    testing::Values(
        FailingStep{"registerClass", {}, {}}, FailingStep{"createWindow", {}, {}},
        FailingStep{"getDeviceContext", {}, {"destroyWindow window", "unregisterClass tarno1"}},
        FailingStep{"choosePixelFormat",
                    {"ChoosePixelFormat ErrorCode: 4711"},
                    {"releaseDeviceContext window dc", "destroyWindow window"}},
        FailingStep{"setPixelFormat",
                    {},
                    {"releaseDeviceContext window dc", "destroyWindow window"}},
        FailingStep{"createContext",
                    {"wglCreateContext ErrorCode: 4711"},
                    {"releaseDeviceContext window dc", "destroyWindow window"}},
        FailingStep{"makeCurrent",
                    {"wglMakeCurrent ErrorCode: 4711"},
                    {"deleteContext context", "releaseDeviceContext window dc",
                     "destroyWindow window"}}),
    [](const testing::TestParamInfo<FailingStep>& tested) { return tested.param.operation; });

TEST(Context, ATooLowVersionLeavesTheContextCurrentAndOwnerless) {
    FakePlatform platform;
    platform.version = "4.2.0 a driver";
    LogRecorder log;
    unsigned int id = 0;
    EXPECT_EQ(tesk_Init(&id), TN_Result_GLVersionTooLow);
    EXPECT_THAT(errors(log), IsEmpty());
    EXPECT_EQ(platform.calls.back(), "loadFunctions");
    platform.calls.clear();
    EXPECT_EQ(tesk_UnInit(id), TN_Result_Success);
    EXPECT_THAT(platform.calls, ElementsAre("makeCurrent null null"));
}

struct VersionText {
    const char* text;
    _TN_Result result;
};

TEST(Context, TheVersionIsReadFromTheCharactersAroundTheFirstPoint) {
    FakePlatform platform;
    const VersionText cases[] = {
        {"4.3.0 a driver", TN_Result_Success}, {"4.60", TN_Result_Success},
        {"5.0", TN_Result_Success},            {"4.2.0 a driver", TN_Result_GLVersionTooLow},
        {"4.1", TN_Result_GLVersionTooLow},    {"3.3", TN_Result_GLVersionTooLow},
        {"10.0", TN_Result_GLVersionTooLow},   {"no point", TN_Result_GLVersionTooLow},
        {".5", TN_Result_GLVersionTooLow},     {"", TN_Result_GLVersionTooLow},
        {"OpenGL ES 3.2", TN_Result_GLVersionTooLow}, {"throw", TN_Result_GLVersionTestException}};
    for (const VersionText& tested : cases) {
        platform.version = tested.text;
        EXPECT_EQ(tesk_CheckGLVersion(), tested.result) << '"' << tested.text << '"';
    }
    EXPECT_THAT(platform.calls, IsEmpty());
}

std::string probe(const std::string& environment, const std::string& argument = "") {
    const std::string command = "env " + environment + " " TARNO_CONTEXT_PROBE " " + argument;
    std::FILE* const output = popen(command.c_str(), "r");
    if (output == nullptr) return "";
    char line[256] = "";
    while (std::fgets(line, sizeof(line), output) != nullptr) continue;
    EXPECT_EQ(pclose(output), 0);
    return line;
}

/// What the probe's library logs.
std::string probe_errors(const std::string& environment) {
    const std::string command = "env " + environment + " " TARNO_CONTEXT_PROBE " 2>&1 >/dev/null";
    std::FILE* const output = popen(command.c_str(), "r");
    if (output == nullptr) return "";
    std::string lines;
    char line[1024] = "";
    while (std::fgets(line, sizeof(line), output) != nullptr) lines += line;
    EXPECT_EQ(pclose(output), 0);
    return lines;
}

TEST(Context, IsMadeOnThisMachinesDriver) {
    EXPECT_EQ(probe(""), "init 0 check 0 uninit 0 again 1\n");
}

TEST(Context, ADriverWithoutComputeShadersIsRefused) {
    EXPECT_EQ(probe("LIBGL_ALWAYS_SOFTWARE=1 GALLIUM_DRIVER=softpipe"),
              "init 5 check 5 uninit 0 again 1\n");
}

TEST(Context, ADriverThatSays42IsRefused) {
    EXPECT_EQ(probe("LIBGL_ALWAYS_SOFTWARE=1 MESA_GL_VERSION_OVERRIDE=4.2"),
              "init 5 check 5 uninit 0 again 1\n");
}

TEST(Context, ADisplayThatTheHostTerminatedIsTakenAgain) {
    EXPECT_EQ(probe("", "terminate"), "init 0 uninit 0 init 0 check 0 uninit 0\n");
}

TEST(Context, ObjectsThatOutliveTheirContextDoNothing) {
    EXPECT_EQ(probe("", "outlive"), "outlived\n");
}

TEST(Context, AMachineWithoutADriverIsAFailure) {
    EXPECT_EQ(probe("__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent"),
              "init 1 check 5 uninit 0 again 1\n");
}

TEST(Context, AMachineWithoutADriverIsOneErrorLineThatNamesTheDisplays) {
    const std::string lines = probe_errors("__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent");
    EXPECT_THAT(lines, HasSubstr("EGL: expected a display with desktop OpenGL, found none ("));
    for (const char* display : {"hardware devices: ", "default display: ", "surfaceless platform: "})
        EXPECT_THAT(lines, HasSubstr(display));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1) << lines;
    EXPECT_EQ(probe_errors("").find("EGL:"), std::string::npos);
}

}  // namespace
