// The key of a record packed by another program: printable, of the record's own type, and the same
// after packing and unpacking again. (The library accepts an unknown field numbered 0 when its tag
// is a byte too long, but refuses it the second time.)
//
// The first byte of the input selects the type.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "p_mng.pb-c.h"
#include "p_nc.pb-c.h"
#include "platform/client/mom_key.h"
#include "tests/fuzz/agent.h"

using namespace qv;

namespace {

struct Free {
    void operator()(ProtobufCMessage* record) const {
        protobuf_c_message_free_unpacked(record, nullptr);
    }
};
using Record = std::unique_ptr<ProtobufCMessage, Free>;

const ProtobufCMessageDescriptor* const kTypes[] = {
    &p_app__lda_loop_entry__descriptor, &p_app__lda_nc_policy__descriptor,
    &p_bridge__tarn_loop_info__descriptor, &p_mng__ui_operate__descriptor,
    &p_nc__notification__descriptor};

void check_key(const std::string& key, const char* type) {
    fuzz::require(key.starts_with(std::string(type) + "/"), "a key begins with its type");
    fuzz::require(std::all_of(key.begin(), key.end(), [](char c) { return c > 0x1f && c < 0x7f; }),
                  "a key is printable");
    fuzz::require(std::count(key.begin(), key.end(), '/') == 1, "a key has one slash");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const ProtobufCMessageDescriptor* const type = kTypes[data[0] % std::size(kTypes)];
    const Record record(protobuf_c_message_unpack(type, nullptr, size - 1, data + 1));
    if (!record) {
        return 0;
    }
    const std::optional<std::string> key = record_key(*record);
    fuzz::require(key.has_value() == record_key_pattern(*record).has_value(),
                  "a record has a key and a pattern, or neither");
    if (!key) {
        return 0;
    }
    check_key(*key, type->name);
    for (const auto& packed : {pack_record(*record), pack_key_of_record(*record)}) {
        const Record again(protobuf_c_message_unpack(type, nullptr, packed.size(), packed.data()));
        fuzz::require(!again || record_key(*again) == key, "the key outlives packing");
    }
    return 0;
}
