#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"

#include <cerrno>
#include <cstring>

#include "crossplatform/src/common/src/bounded_reader.h"
#include "crossplatform/src/common/src/layer_order.h"
#include "crossplatform/src/common/src/message_faults.h"
#include "crossplatform/src/common/src/payload_readers.h"
#include "platform/assertion.h"

namespace {

// Places of the header's words.
enum HeaderWord {
    HEAD_MARKER = 0,
    VERSION = 1,
    GESTURE_MODE = 2,
    APPLICATION_TYPE = 3,
    MODEL_ID = 4,
    MODEL_BASE_W = 5,
    MODEL_BASE_H = 6,
    END_MARKER = 249,
};

constexpr unsigned int header_head = 0x5555;
constexpr unsigned int header_end = 0xaaaa;
constexpr unsigned int legacy_version = 10000;

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using OpenFile = std::unique_ptr<FILE, CloseFile>;

}  // namespace

ZQNetLoader::ZQNetLoader() : header{}, version_was_read(false) {}

ZQNetLoader::ZQNetLoader(const char* path) : ZQNetLoader() {
    const bool ifSuccess = LoadFile(path, false);
    if (!ifSuccess) {
        std::printf("[Tarno] ZQNetLoader: Error in %s(%d), load file(%s) filed",
                    "ZQNetLoader::ZQNetLoader", 520, path == nullptr ? "" : path);
    }
    TN_ASSERT_AT(ifSuccess, "crossplatform_zqnetloader", 522);
}

ZQNetLoader::ZQNetLoader(const ZQNetLoader& other) = default;

ZQNetLoader& ZQNetLoader::operator=(const ZQNetLoader& other) = default;

ZQNetLoader::~ZQNetLoader() {
    const unsigned int version = getVersion();
    if (version == legacy_version) {
        ReleaseV10000();
    } else if (version > legacy_version) {
        Release();
    } else if (version_was_read) {
        TN_ASSERT_AT(false, "crossplatform_zqnetloader", 539);
    }
}

bool ZQNetLoader::LoadFile(const char* path, bool sort_layers) {
    failure_text.clear();
    if (path == nullptr) return fail("no path given");
    const OpenFile file(std::fopen(path, "rb"));
    if (!file) return fail("the file can't be opened: " + std::string(std::strerror(errno)));

    const size_t size = std::fread(header, 1, sizeof(header), file.get());
    version_was_read = version_was_read || size >= (VERSION + 1) * sizeof(header[0]);
    std::string header_fault;
    if (size != sizeof(header)) {
        header_fault =
            std::to_string(sizeof(header)) + " bytes expected, found " + std::to_string(size);
    } else if (header[HEAD_MARKER] != header_head) {
        header_fault = "head_marker " + marker_text(header_head) + " expected, found " +
                       marker_text(header[HEAD_MARKER]);
    } else if (header[END_MARKER] != header_end) {
        header_fault = "end_marker " + marker_text(header_end) + " expected, found " +
                       marker_text(header[END_MARKER]);
    }
    if (!header_fault.empty()) {
        Tarno::_LogError("Tarno", "file exist but not right");
        return fail("offset 0, header: " + header_fault);
    }

    const unsigned int version = getVersion();
    bool loaded = false;
    if (version < legacy_version) {
        fail("offset 4, header: version " + std::to_string(legacy_version) +
             " or above expected, found " + std::to_string(version));
    } else if (version == legacy_version) {
        loaded = read_messages_v10000(file.get());
    } else {
        loaded = read_messages(file.get());
    }
    if (loaded) count_reads(layers_info, sequential_layers, layers_rcnt);
    // Also what a failed load left is put in order.
    if (sort_layers) sort_layers_by_dependency(layers_info, sequential_layers);
    return loaded;
}

bool ZQNetLoader::LoadFile(FILE* stream) {
    failure_text.clear();
    if (stream == nullptr) return fail("no stream given");
    if (!read_messages(stream)) return false;
    std::fclose(stream);
    count_reads(layers_info, sequential_layers, layers_rcnt);
    return true;
}

bool ZQNetLoader::read_messages(FILE* stream) {
    const PayloadRules rules = {getVersion(), false};
    BoundedReader in(stream);
    for (size_t record = 0;; ++record) {
        unsigned short message_head = 0;
        if (!in.read(message_head)) return true;
        TN_ASSERT_AT(message_head == 0x5555, "crossplatform_zqnetloader", 1381);
        unsigned short message_type = 0;
        if (!in.read(message_type)) {
            return fail(
                message_fault_text(in.offset(), record, "message_type expected, found the end"));
        }

        const unsigned int since = zq_layer_type_since(message_type);
        PayloadFault fault;
        if (since == 0) {
            Tarno::_LogError("Tarno", "\n\n\nError, Unsupport Layer Type %d.\n", message_type);
            fault.text = "a type of 0 to 11, 14 to 22 or 26 expected";
            return fail(message_fault_text(in.offset(), record, message_type, fault));
        }
        // The oldest types have no gate: they are read whatever the header says.
        if (since > legacy_version && rules.version < since) {
            fault.text = "a file of version " + std::to_string(since) +
                         " or above expected, found version " + std::to_string(rules.version);
            return fail(message_fault_text(in.offset(), record, message_type, fault));
        }
        std::unique_ptr<ZQLayerInfo> layer = read_payload(in, message_type, rules, fault);
        if (!layer) return fail(message_fault_text(in.offset(), record, message_type, fault));
        fault.id_known = true;
        fault.id = layer->id;
        append(std::move(layer));

        const uint64_t end_offset = in.offset();
        unsigned short message_end = 0;
        const bool ended = in.read(message_end);
        if (!ended || message_end != 0xaaaa) {
            fault.text = "message_end 0xaaaa expected, found " +
                         (ended ? marker_text(message_end) : "the end of the file");
            return fail(message_fault_text(end_offset, record, message_type, fault));
        }
    }
}

void ZQNetLoader::append(std::unique_ptr<ZQLayerInfo> record) {
    sequential_layers.push_back(record->id);
    if (layers_info.emplace(record->id, record.get()).second) records.push_back(std::move(record));
}

bool ZQNetLoader::fail(const std::string& text) {
    failure_text = text;
    return false;
}

void ZQNetLoader::Release() {
    release_records();
}

void ZQNetLoader::release_records() {
    layers_info.clear();
    sequential_layers.clear();
    layers_rcnt.clear();
    records.clear();
}

unsigned int ZQNetLoader::getVersion() const {
    return header[VERSION];
}

unsigned int ZQNetLoader::getGestureMode() const {
    return header[GESTURE_MODE];
}

unsigned int ZQNetLoader::getApplicationType() const {
    return header[APPLICATION_TYPE];
}

unsigned int ZQNetLoader::getModelID() const {
    return header[MODEL_ID];
}

unsigned int ZQNetLoader::getModelBaseW() const {
    return header[MODEL_BASE_W];
}

unsigned int ZQNetLoader::getModelBaseH() const {
    return header[MODEL_BASE_H];
}

std::map<unsigned short, ZQLayerInfo*> ZQNetLoader::getLayersInfo() const {
    return layers_info;
}

std::map<unsigned short, unsigned short> ZQNetLoader::getLayersRCnt() const {
    return layers_rcnt;
}

std::vector<unsigned short> ZQNetLoader::getSequentialLayers() const {
    return sequential_layers;
}

std::string ZQNetLoader::decodeModelID() const {
    const unsigned int model_id = getModelID();
    const unsigned int application = model_id / 100000000u;
    const unsigned int major = (model_id % 100000000u) / 1000000u;
    const unsigned int minor = (model_id % 1000000u) / 1000u;
    const unsigned int patch = model_id % 1000u;
    std::string name;
    switch (application) {
        case 1:
            name = "Face_Key_Points";
            break;
        case 2:
            name = "Gesture_Recognition";
            break;
        case 3:
            name = "Background_Segmentation";
            break;
        default:
            break;
    }
    return name + "_" + std::to_string(major) + "." + std::to_string(minor) + "." +
           std::to_string(patch);
}

const std::string& ZQNetLoader::failure() const {
    return failure_text;
}

const unsigned int* ZQNetLoader::header_words() const {
    return header;
}
