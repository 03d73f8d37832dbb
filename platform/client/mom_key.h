// Key texts of records as docs/object-database.md defines them: "<type>/<field>=<value>,..." with
// the fields of the sub-message `index` in number order, and "<type>/" for a type without one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <protobuf-c/protobuf-c.h>

namespace qv {

// Returns nothing when the record has no index although its type does, or when the index holds a
// field that cannot be written as text (repeated, one of several, floating point, a message).
std::optional<std::string> record_key(const ProtobufCMessage& record);

// A glob that matches the keys of the type whose fields agree with those fields of the record's
// index that are not at their default. Returns nothing in the same cases.
std::optional<std::string> record_key_pattern(const ProtobufCMessage& record);

std::vector<uint8_t> pack_record(const ProtobufCMessage& record);

// The record reduced to its index, packed. A delete notice carries it.
std::vector<uint8_t> pack_key_of_record(const ProtobufCMessage& record);

}  // namespace qv
