// Feeds the model reader. Beside the sanitizers' findings it stops when a model that was read can
// be written but does not read back as the same records.
#include <modelkit/model_writer.h>
#include <modelkit/records.h>
#include <sys/mman.h>
#include <tarno/log.h>
#include <tarno/model.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "loader_input.h"

namespace {

// A file in memory, written anew for each input.
class MemoryFile {
public:
    MemoryFile() : descriptor(memfd_create("model", 0)) {
        name = "/proc/self/fd/" + std::to_string(descriptor);
        if (descriptor < 0) std::abort();
    }
    const char* write(const std::vector<unsigned char>& bytes) const {
        if (ftruncate(descriptor, 0) != 0 || pwrite(descriptor, bytes.data(), bytes.size(), 0) !=
                                                 static_cast<ssize_t>(bytes.size())) {
            std::abort();
        }
        return name.c_str();
    }

private:
    int descriptor;
    std::string name;
};

void stop(const std::string& reason) {
    std::fprintf(stderr, "fuzz_loader: %s\n", reason.c_str());
    std::abort();
}

// Reads every number of every record.
volatile uint64_t sum_of_all;
void walk(const ZQNetLoader& loader) {
    uint64_t sum = loader.decodeModelID().size() + loader.failure().size();
    for (const auto& [id, record] : loader.getLayersInfo()) {
        if (record->id != id) stop("a record under another id");
        for (const modelkit::RecordField& field : modelkit::fields_of(*record)) {
            for (const unsigned int value : field.values)
                sum += value;
        }
    }
    for (const unsigned short id : loader.getSequentialLayers())
        sum += id;
    for (const auto& [id, count] : loader.getLayersRCnt())
        sum += id + count;
    sum_of_all = sum;
}

void there_and_back(const ZQNetLoader& loader, const MemoryFile& file) {
    modelkit::ModelWriter writer(modelkit::header_of(loader));
    if (!writer.add_all(loader)) return;  // two layers with one id
    ZQNetLoader again;
    if (!again.LoadFile(file.write(writer.bytes()), false)) stop(again.failure());
    if (again.getSequentialLayers() != loader.getSequentialLayers()) stop("another order");
    if (again.getLayersRCnt() != loader.getLayersRCnt()) stop("other read counts");
    const auto records = again.getLayersInfo();
    for (const auto& [id, record] : loader.getLayersInfo()) {
        const std::string member = modelkit::difference(*record, *records.at(id));
        if (!member.empty()) stop("layer " + std::to_string(id) + " differs in " + member);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The reader prints to standard output; the fuzzer's own lines go to standard error.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    Tarno::SetAssertHandler([](const char*, const char*, int) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemoryFile file;
    static const MemoryFile second;
    if (size < 2) return 0;
    const bool sorted = (data[0] & loader_input::SORTED) != 0;
    std::vector<unsigned char> bytes;
    if ((data[0] & loader_input::WHOLE_FILE) != 0) {
        bytes.assign(data + 1, data + size);
    } else {
        modelkit::ModelHeader header;
        header.version = loader_input::VERSIONS[data[1] % loader_input::VERSION_COUNT];
        bytes = modelkit::ModelWriter(header).bytes();
        bytes.insert(bytes.end(), data + 2, data + size);
    }
    ZQNetLoader loader;
    const bool loaded = loader.LoadFile(file.write(bytes), sorted);
    if (loaded != loader.failure().empty()) stop("a reason without a failure or none with one");
    walk(loader);
    if (loaded && !sorted) there_and_back(loader, second);
    return 0;
}
