// Feeds the ONNX importer: the reader with a folder of external data, the passes, the lowering for
// each choice of engines. Beside the sanitizers' findings it stops when a refusal is no one line,
// or when what was converted does not read back as a model of so many layers.
#include <modelkit/onnx/converter.h>
#include <modelkit/onnx/reader.h>
#include <sys/mman.h>
#include <tarno/log.h>
#include <tarno/model.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace modelkit::onnx;

void stop(const std::string& reason) {
    std::fprintf(stderr, "fuzz_onnx: %s\n", reason.c_str());
    std::abort();
}

void expect_line(const modelkit::Status& status) {
    for (const char letter : status.message()) {
        if (static_cast<unsigned char>(letter) < 32) stop("a refusal of more than one line");
    }
}

void read_back(const Conversion& conversion) {
    static const int descriptor = memfd_create("model", 0);
    static const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
    const std::vector<unsigned char>& bytes = conversion.file;
    if (ftruncate(descriptor, 0) != 0 ||
        pwrite(descriptor, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        std::abort();
    }
    ZQNetLoader loader;
    if (!loader.LoadFile(name.c_str(), false)) stop("not read back: " + loader.failure());
    if (loader.getSequentialLayers().size() != conversion.layers.size()) stop("other layers");
}

/// A folder with one file, "w.bin", for tensors that name it, as onnx.dict lets them.
class ExternalFolder {
public:
    ExternalFolder() : path("/tmp/fuzz_onnx_XXXXXX") {
        if (mkdtemp(path.data()) == nullptr) std::abort();
        std::ofstream file(path + "/w.bin", std::ios::binary);
        for (int i = 0; i < 4096; ++i) file.put(static_cast<char>(i * 7 % 64));
    }
    ~ExternalFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

const std::string& external_folder() {
    static const ExternalFolder folder;
    return folder.path;
}

// A few bytes may ask for an input of gigabytes, which is sound and slow.
bool small(const Graph& graph) {
    for (const ValueInfo& input : graph.inputs) {
        int64_t elements = 1;
        for (const int64_t size : input.dims) {
            elements *= size < 1 ? 1 : size;
            if (elements > 1 << 16) return false;
        }
    }
    return graph.nodes.size() < 64;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    Tarno::SetAssertHandler([](const char*, const char*, int) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Graph graph;
    const modelkit::Status read = read_graph(data, size, external_folder(), graph);
    expect_line(read);
    if (!read || !small(graph)) return 0;
    for (const Engines engines : {Engines::Cpu, Engines::Both}) {
        ConvertOptions options;
        options.engines = engines;
        Conversion conversion;
        const modelkit::Status converted = convert(graph, options, conversion);
        expect_line(converted);
        if (converted) read_back(conversion);
    }
    return 0;
}
