// What a command that is stopped leaves behind: nothing.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "../../tools/files.h"
#include "onnx/made_model.h"
#include "tools/command.h"

namespace {

using namespace command_test;
using onnx_test::MadeModel;
using Words = std::vector<std::string>;

/// The signal that ends a process of its own around `work`; 0 when none did.
int ended_by(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int state = 0;
    waitpid(child, &state, 0);
    return WIFSIGNALED(state) ? WTERMSIG(state) : 0;
}

TEST(Interruption, TakesWhatIsNotCommittedWithIt) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        SCOPED_TRACE(number);
        const Folder folder;
        write_file(folder / "old", std::string("old"));
        std::filesystem::create_directory(folder / "there");
        const int ended = ended_by([&]() {
            tool::OutputFiles committed;
            committed.write(folder / "new", "new");
            committed.commit();
            tool::OutputFiles files;
            files.write(folder / "old", "newer");
            files.write(folder / "none", "none");
            for (const char* name : {"there", "made"}) {
                files.folder(folder / name);
                files.write_in_folder(folder / name, "a.npy", "a");
                files.write_in_folder(folder / name, "b.npy", "b");
            }
            raise(number);
        });
        EXPECT_EQ(ended, number);
        EXPECT_EQ(folder.names(), (Words{"new", "old", "there"}));
        EXPECT_EQ(read_file(folder / "old"), "old");
        EXPECT_TRUE(std::filesystem::is_empty(folder / "there"));
    }
}

TEST(Interruption, DoesNotHappenWhereItIsIgnored) {
    const Folder folder;
    const int ended = ended_by([&]() {
        signal(SIGHUP, SIG_IGN);
        tool::OutputFiles files;
        files.write(folder / "new", "new");
        raise(SIGHUP);
        files.commit();
    });
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(folder.names(), (Words{"new"}));
}

/// A graph whose proof takes a while.
std::string long_work() {
    MadeModel model;
    model.input("x", {1, 32, 256, 256}).output("y");
    model.random("w", {32, 32, 3, 3}, 1, 0.1).node("Conv", {"x", "w"}, {"y"});
    return model.bytes();
}

TEST(Interruption, LeavesNoFileOfAConversion) {
    const Folder folder;
    write_file(folder / "net.onnx", long_work());
    const std::string input = folder / "net.onnx";
    const std::string output = folder / "net.zqnet";
    const pid_t child = fork();
    if (child == 0) {
        const int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, 1);
        dup2(nowhere, 2);
        execl(TARNO_COMMAND, TARNO_COMMAND, "convert", "--input", input.c_str(), "--output",
              output.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    // The model and its names wait beside the input for the proof.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (folder.names().size() < 3 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(folder.names().size(), 3u);
    kill(child, SIGINT);
    int state = 0;
    waitpid(child, &state, 0);
    EXPECT_TRUE(WIFSIGNALED(state)) << "ended before the signal came";
    EXPECT_EQ(WTERMSIG(state), SIGINT);
    EXPECT_EQ(folder.names(), (Words{"net.onnx"}));
}

}  // namespace
