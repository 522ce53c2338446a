// The one reader of model files. Both engines build their networks from what it found and never
// touch the file themselves.
#pragma once

#include <cstddef>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../../../platform/export.h"
#include "zqlayerinfo.h"

/// Reads a model file into memory: its header, a record for each layer, the order of the layers,
/// and how often each layer is read.
///
/// Meant for one load: a second one adds its records to those of the first. Used from one thread;
/// the accessors of a loaded model may be called from several, since they copy.
class TN_API ZQNetLoader {
public:
    /// No model; all header words read as 0.
    ZQNetLoader();
    /// `LoadFile(path, false)`. A failure is printed to standard output and raises an assertion.
    explicit ZQNetLoader(const char* path);
    /// Copies share the records: these live until the last loader that shares them is gone or
    /// released.
    ZQNetLoader(const ZQNetLoader& other);
    ZQNetLoader& operator=(const ZQNetLoader& other);
    /// Lets the records go. Asserts when a header was read whose version is below 10000.
    ~ZQNetLoader();

    /// Reads the file. With `sort_layers` the layers are then brought into an order in which each
    /// stands behind all that it reads; otherwise they stay in the order of the file. False when
    /// the file can't be opened or is not a sound model of a known kind: `failure()` then tells
    /// more. The records before the fault stay.
    bool LoadFile(const char* path, bool sort_layers);

    /// Reads the messages from where `stream` stands, behind the header, by the rules of the
    /// version in the header words, 10001 at the least. On success the stream is closed; on failure
    /// it stays open and belongs to the caller as before.
    bool LoadFile(FILE* stream);

    /// The same for the messages of a file of version 10000.
    bool LoadFileV10000(FILE* stream);

    /// Lets the records go and empties the order and the read counts. The header stays.
    void Release();
    /// The same for a model of version 10000.
    void ReleaseV10000();

    unsigned int getVersion() const;
    unsigned int getGestureMode() const;
    unsigned int getApplicationType() const;
    unsigned int getModelID() const;
    unsigned int getModelBaseW() const;
    unsigned int getModelBaseH() const;

    /// The records by layer id. They belong to the loader. Of several records with one id this is
    /// the first.
    std::map<unsigned short, ZQLayerInfo*> getLayersInfo() const;
    /// For each layer id how many bottoms of other layers name it, modulo 65,536. Empty when the
    /// load failed.
    std::map<unsigned short, unsigned short> getLayersRCnt() const;
    /// The layer ids in execution order; an id stands there once for each record that carries it.
    /// After a sort it may hold ids that have no record, when the model reads from such.
    std::vector<unsigned short> getSequentialLayers() const;

    /// The name behind `getModelID`, such as "Face_Key_Points_1.2.3".
    std::string decodeModelID() const;

    /// Why the last load gave false, in one line: where in the file, which record, layer id and
    /// type, what was expected and what was found. Empty after a load that succeeded.
    const std::string& failure() const;

    /// The 250 words of the header as they stand in the file.
    const unsigned int* header_words() const;

    static constexpr size_t header_word_count = 250;

private:
    /// Read messages up to the end of the stream, and leave it open.
    bool read_messages(FILE* stream);
    bool read_messages_v10000(FILE* stream);
    /// Puts a record behind all others. One whose id is taken leaves its place in the order only.
    void append(std::unique_ptr<ZQLayerInfo> record);
    /// Notes why the load fails; false.
    bool fail(const std::string& text);
    void release_records();

    std::map<unsigned short, ZQLayerInfo*> layers_info;
    std::vector<unsigned short> sequential_layers;
    std::map<unsigned short, unsigned short> layers_rcnt;
    /// Two lists that nobody fills or reads; copies carry them along.
    std::vector<unsigned short> unused_ids;
    std::vector<unsigned short> unused_counts;
    unsigned int header[header_word_count];

    bool version_was_read;
    std::string failure_text;
    /// Keeps the records of `layers_info` alive; shared by copies.
    std::vector<std::shared_ptr<ZQLayerInfo>> records;
};
