// The files of version 10000: fewer types, shorter payloads, and a loop that goes on where the
// current one gives up.
#include <cstdio>

#include "crossplatform/src/common/src/bounded_reader.h"
#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"
#include "crossplatform/src/common/src/layer_order.h"
#include "crossplatform/src/common/src/message_faults.h"
#include "crossplatform/src/common/src/payload_readers.h"
#include "platform/assertion.h"

bool ZQNetLoader::LoadFileV10000(FILE* stream) {
    failure_text.clear();
    if (stream == nullptr) return fail("no stream given");
    if (!read_messages_v10000(stream)) return false;
    std::fclose(stream);
    count_reads(layers_info, sequential_layers, layers_rcnt);
    return true;
}

bool ZQNetLoader::read_messages_v10000(FILE* stream) {
    const PayloadRules rules = {10000, true};
    BoundedReader in(stream);
    for (size_t record = 0;; ++record) {
        unsigned short message_head = 0;
        if (!in.read(message_head)) return true;
        TN_ASSERT_AT(message_head == 0x5555, "crossplatform_zqnetloader", __LINE__);
        unsigned short message_type = 0;
        if (!in.read(message_type)) {
            return fail(
                message_fault_text(in.offset(), record, "message_type expected, found the end"));
        }

        if (zq_layer_type_since(message_type) == 10000) {
            PayloadFault fault;
            std::unique_ptr<ZQLayerInfo> layer = read_payload(in, message_type, rules, fault);
            if (!layer) return fail(message_fault_text(in.offset(), record, message_type, fault));
            append(std::move(layer));
        } else {
            std::printf("\n\n\nError, Unsupport Layer Type.\n");
            TN_ASSERT_AT(false, "crossplatform_zqnetloader", 1344);
        }

        // At the end of the file this is a missing mark, and the loop ends with the next message.
        unsigned short message_end = 0;
        (void)in.read(message_end);
        TN_ASSERT_AT(message_end == 0xaaaa, "crossplatform_zqnetloader", __LINE__);
    }
}

// Of these files most record classes used to be freed without their small arrays. The arrays were
// lost and nothing else told the difference, so here they go the way of all others.
void ZQNetLoader::ReleaseV10000() {
    release_records();
}
