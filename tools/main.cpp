// The `tarno` command. Whatever goes wrong is one line on standard error and an exit status.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "command_line.h"
#include "errors.h"

namespace {

/// One line, whatever a file name or a message holds.
int fail(const std::string& text, int status) {
    std::string line = "tarno: " + text;
    for (char& c : line) {
        const unsigned char code = static_cast<unsigned char>(c);
        if (code < 0x20 || code == 0x7f) c = c == '\n' ? ' ' : '?';
    }
    line += '\n';
    std::fputs(line.c_str(), stderr);
    return status;
}

void run_command(const tool::Command& command) {
    struct Runner {
        void operator()(const tool::InfoCommand& info) const { tool::info(info); }
        void operator()(const tool::RunCommand& run) const { tool::run(run); }
        void operator()(const tool::BenchCommand& bench) const { tool::bench(bench); }
        void operator()(const tool::TuneCommand& tune) const { tool::tune(tune); }
        void operator()(const tool::ConvertCommand& convert) const { tool::convert(convert); }
        void operator()(const tool::CompareCommand& compare) const { tool::compare(compare); }
        void operator()(const tool::ImageCommand& image) const { tool::image(image); }
        void operator()(const tool::GpuInfoCommand& info) const { tool::gpu_info(info); }
    };
    std::visit(Runner(), command);
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    try {
        run_command(tool::parse_command_line(argc, argv));
    } catch (const tool::NothingToDo&) {
    } catch (const tool::UsageError& error) {
        status = fail(error.what(), tool::exit_usage);
    } catch (const tool::CommandError& error) {
        status = fail(error.what(), tool::exit_error);
    } catch (const std::bad_alloc&) {
        status = fail("expected enough memory, found none left", tool::exit_error);
    } catch (const std::exception& error) {
        status = fail(error.what(), tool::exit_error);
    }
    // A full disk shows when the buffer goes out.
    if ((std::fflush(stdout) != 0 || std::ferror(stdout) != 0) && status == 0) {
        status = fail(
            "standard output: expected room to write, found: " + std::string(std::strerror(errno)),
            tool::exit_error);
    }
    return status;
}
