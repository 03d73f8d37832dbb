#include "platform/client/mom_key.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace qv {
namespace {

template <typename T>
T member(const ProtobufCMessage& message, unsigned offset) {
    T value;
    std::memcpy(&value, reinterpret_cast<const char*>(&message) + offset, sizeof value);
    return value;
}

// Bytes that have a meaning in a key, or that a terminal would not show as they are.
bool needs_escape(unsigned char c) {
    return c < 0x20 || c > 0x7e || c == '%' || c == ',' || c == '=' || c == '/';
}

std::string escaped(std::string_view value) {
    constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(value.size());
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (needs_escape(byte)) {
            text += {'%', kHex[byte >> 4], kHex[byte & 15]};
        } else {
            text += c;
        }
    }
    return text;
}

std::string text_of_bytes(const ProtobufCBinaryData& bytes) {
    return escaped({reinterpret_cast<const char*>(bytes.data), bytes.len});
}

std::optional<std::string> value_text(const ProtobufCMessage& index,
                                      const ProtobufCFieldDescriptor& field) {
    if (field.label == PROTOBUF_C_LABEL_REPEATED || (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF)) {
        return std::nullopt;
    }
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_SINT32:
        case PROTOBUF_C_TYPE_SFIXED32:
        case PROTOBUF_C_TYPE_ENUM:
            return std::to_string(member<int32_t>(index, field.offset));
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            return std::to_string(member<int64_t>(index, field.offset));
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            return std::to_string(member<uint32_t>(index, field.offset));
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return std::to_string(member<uint64_t>(index, field.offset));
        case PROTOBUF_C_TYPE_BOOL:
            return member<protobuf_c_boolean>(index, field.offset) ? "1" : "0";
        case PROTOBUF_C_TYPE_STRING: {
            const char* const text = member<const char*>(index, field.offset);
            return escaped(text == nullptr ? "" : text);
        }
        case PROTOBUF_C_TYPE_BYTES:
            return text_of_bytes(member<ProtobufCBinaryData>(index, field.offset));
        case PROTOBUF_C_TYPE_FLOAT:
        case PROTOBUF_C_TYPE_DOUBLE:
        case PROTOBUF_C_TYPE_MESSAGE:
            return std::nullopt;
    }
    std::abort();
}

const ProtobufCFieldDescriptor* index_field(const ProtobufCMessage& record) {
    return protobuf_c_message_descriptor_get_field_by_name(record.descriptor, "index");
}

using WriteValue = std::string (*)(const ProtobufCFieldDescriptor& field, const std::string& value);

// The key with each value put through `write`.
std::optional<std::string> key_text(const ProtobufCMessage& record, WriteValue write) {
    std::string key = std::string(record.descriptor->name) + "/";
    const ProtobufCFieldDescriptor* const field = index_field(record);
    if (field == nullptr) {
        return key;
    }
    if (field->type != PROTOBUF_C_TYPE_MESSAGE || field->label == PROTOBUF_C_LABEL_REPEATED) {
        return std::nullopt;
    }
    const auto* const index =
        static_cast<const ProtobufCMessage*>(member<const void*>(record, field->offset));
    if (index == nullptr) {
        return std::nullopt;
    }
    const ProtobufCMessageDescriptor& type = *index->descriptor;
    for (unsigned n = 0; n < type.n_fields; n++) {  // the descriptor holds them in number order
        const auto value = value_text(*index, type.fields[n]);
        if (!value) {
            return std::nullopt;
        }
        key += n == 0 ? "" : ",";
        key += type.fields[n].name;
        key += '=';
        key += write(type.fields[n], *value);
    }
    return key;
}

std::string plain_value(const ProtobufCFieldDescriptor& /*field*/, const std::string& value) {
    return value;
}

std::string glob_of_value(const ProtobufCFieldDescriptor& field, const std::string& value) {
    const bool textual =
        field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES;
    if (value == (textual ? "" : "0")) {
        return "*";
    }
    std::string glob;
    for (const char c : value) {
        if (c == '*' || c == '?' || c == '[' || c == '\\') {
            glob += '\\';
        }
        glob += c;
    }
    return glob;
}

}  // namespace

std::optional<std::string> record_key(const ProtobufCMessage& record) {
    return key_text(record, plain_value);
}

std::optional<std::string> record_key_pattern(const ProtobufCMessage& record) {
    return key_text(record, glob_of_value);
}

std::vector<uint8_t> pack_record(const ProtobufCMessage& record) {
    std::vector<uint8_t> packed(protobuf_c_message_get_packed_size(&record));
    protobuf_c_message_pack(&record, packed.data());
    return packed;
}

std::vector<uint8_t> pack_key_of_record(const ProtobufCMessage& record) {
    const ProtobufCMessageDescriptor& type = *record.descriptor;
    const std::unique_ptr<void, decltype(&std::free)> memory(std::malloc(type.sizeof_message),
                                                             std::free);
    if (!memory) {
        throw std::bad_alloc();
    }
    auto* const key = static_cast<ProtobufCMessage*>(memory.get());
    protobuf_c_message_init(&type, key);
    if (const ProtobufCFieldDescriptor* const field = index_field(record)) {
        std::memcpy(static_cast<char*>(memory.get()) + field->offset,
                    reinterpret_cast<const char*>(&record) + field->offset, sizeof(void*));
    }
    return pack_record(*key);
}

}  // namespace qv
