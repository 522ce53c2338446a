// Time to register each group of the built-in catalogue, program by program, from the source to a
// linked program. Cold is with the driver's cache of compiled programs turned off, cached with one
// that a run before has filled. Each figure is the least of three runs, each in a process of its own.
// What a driver puts off until the first dispatch is not in it.
//
// The switches of the cache are Mesa's; on another driver both columns are what that driver does.
#include <GL/glew.h>
#include <tarno/gpu.h>
#include <tarno/log.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/glutil/half_stores.h"
#include "gpu/opengl/glcnn/src/tesk/program_sources.h"

namespace {

struct Row {
    const char* group;
    const char* name;
};

constexpr Row rows[] = {
#define TESK_PROGRAM(name, x, y, z, interface)
#define TESK_IN_GROUP(group, name) {#group, name},
#include "gpu/opengl/glcnn/src/tesk/programs/manifest.def"
#undef TESK_PROGRAM
#undef TESK_IN_GROUP
};
constexpr size_t row_count = sizeof(rows) / sizeof(rows[0]);

double milliseconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

/// One process: registers every row, a group at a time with a manager of its own, and prints the
/// milliseconds of each.
int register_all() {
    unsigned int id = 0;
    if (tesk_Init(&id) != TN_Result_Success) return 1;
    std::printf("%s, %s\n", glGetString(GL_RENDERER), glGetString(GL_VERSION));
    // The trial of the driver comes once a thread; it is no program's time.
    tesk::halfStoresCutOff();
    std::unique_ptr<tesk::ComputeProgramManager> manager;
    const char* group = "";
    for (const Row& row : rows) {
        if (std::strcmp(group, row.group) != 0) {
            if (manager != nullptr) manager->release();
            manager = std::make_unique<tesk::ComputeProgramManager>(0, "");
            group = row.group;
        }
        const auto start = std::chrono::steady_clock::now();
        manager->addComputeProgramFromString(tesk::programSource(row.name), row.name);
        const double milliseconds = milliseconds_since(start);
        if (!manager->getComputeProgram(row.name)->isLinked()) return 1;
        std::printf("%.6f\n", milliseconds);
    }
    manager->release();
    tesk_UnInit(id);
    return 0;
}

/// The least of several processes under `environment`; empty when one of them failed.
std::vector<double> least_of(int runs, const std::string& environment, std::string& driver) {
    std::vector<double> least(row_count, 1e9);
    for (int run = 0; run < runs; ++run) {
        char self[4096] = "";
        if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) return {};
        const std::string command = "env " + environment + " '" + self + "' --once";
        std::FILE* const output = popen(command.c_str(), "r");
        if (output == nullptr) return {};
        char line[512] = "";
        if (std::fgets(line, sizeof(line), output) != nullptr) driver = line;
        size_t read = 0;
        for (double& milliseconds : least) {
            double now = 0.0;
            if (std::fscanf(output, "%lf", &now) != 1) break;
            milliseconds = std::min(milliseconds, now);
            ++read;
        }
        if (pclose(output) != 0 || read != row_count) return {};
    }
    return least;
}

void print_row(const char* name, double cold, double cached) {
    std::printf("  %-62s %9.3f %9.3f %7.1f\n", name, cold, cached, cold / std::max(cached, 1e-6));
}

}  // namespace

int main(int argc, char** argv) {
    Tarno::SetLogLevel(Tarno::LogLevel::Error);
    if (argc > 1 && std::strcmp(argv[1], "--once") == 0) return register_all();

    std::string folder = (std::filesystem::temp_directory_path() / "tarno_XXXXXX").string();
    if (mkdtemp(&folder[0]) == nullptr) {
        std::fprintf(stderr, "gpu_registration: cannot make a folder for the driver's cache\n");
        return 1;
    }
    std::string driver;
    const std::vector<double> cold = least_of(3, "MESA_SHADER_CACHE_DISABLE=true", driver);
    const std::string with_cache =
        "MESA_SHADER_CACHE_DISABLE=false MESA_SHADER_CACHE_DIR='" + folder + "'";
    const bool filled = !least_of(1, with_cache, driver).empty();
    const std::vector<double> cached = least_of(3, with_cache, driver);
    std::filesystem::remove_all(folder);
    if (cold.empty() || !filled || cached.empty()) {
        std::fprintf(stderr, "gpu_registration: expected a context with OpenGL 4.3 and programs that "
                             "link, see above\n");
        return 1;
    }

    std::printf("driver: %smilliseconds, and the ratio of cold to cached\n\n", driver.c_str());
    std::printf("  %-62s %9s %9s %7s\n", "", "cold", "cached", "ratio");
    for (size_t i = 0; i < row_count;) {
        const char* const group = rows[i].group;
        std::printf("%s\n", group);
        double cold_sum = 0.0, cached_sum = 0.0;
        for (; i < row_count && std::strcmp(rows[i].group, group) == 0; ++i) {
            print_row(rows[i].name, cold[i], cached[i]);
            cold_sum += cold[i];
            cached_sum += cached[i];
        }
        print_row("the group", cold_sum, cached_sum);
    }
    return 0;
}
