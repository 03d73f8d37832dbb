// Lua scripts for EVAL, which the server executes as one step.
#pragma once

#include <string_view>

#include "platform/driver/linux/redis_reply.h"

namespace qv {

// Deletes all keys that match ARGV[1] and announces each with its last record on channel ARGV[2].
// In one step, so that a write of another program is either deleted and announced, or comes later
// and stays.
inline constexpr std::string_view kEraseScript = R"(
for _, key in ipairs(redis.call('KEYS', ARGV[1])) do
  local record = redis.pcall('GET', key)
  redis.call('DEL', key)
  if type(record) == 'string' then redis.call('PUBLISH', ARGV[2], '\1' .. record) end
end
return 0)";

// Sets KEYS[1] to ARGV[1] and announces it on channel ARGV[2], unless the key exists. Returns 1
// when it was set.
inline constexpr std::string_view kSetMissingScript = R"(
if redis.call('SET', KEYS[1], ARGV[1], 'NX') then
  redis.call('PUBLISH', ARGV[2], '\0' .. ARGV[1])
  return 1
end
return 0)";

// Reads the records under KEYS or, without keys, under one page of a SCAN from cursor ARGV[1] that
// matches ARGV[2]. The answer stays below a size that the client accepts, and holds
//   the next cursor,
//   the records: key, value, key, value ...,
//   the keys that are left for another call because the answer is full; it takes at least one
//   record, so the calls end,
//   the records that are too long: the first bytes of the key, the size of the value ...
// A record is too long when its value has more than ARGV[3] bytes or its key more than 1,024. A key
// without a value, or with one that is not a string, is skipped.
inline constexpr std::string_view kScanScript = R"(
local cursor, keys = ARGV[1], KEYS
if #keys == 0 then
  local page = redis.call('SCAN', cursor, 'MATCH', ARGV[2], 'COUNT', 256)
  cursor, keys = page[1], page[2]
end
local records, left, long, room = {}, {}, {}, 1048576
for _, key in ipairs(keys) do
  local size = redis.pcall('STRLEN', key)
  if type(size) ~= 'number' then
  elseif size > tonumber(ARGV[3]) or #key > 1024 then
    long[#long + 1] = key:sub(1, 128)
    long[#long + 1] = size
  elseif size > room and #records > 0 then
    left[#left + 1] = key
  else
    local record = redis.call('GET', key)
    if record then
      records[#records + 1] = key
      records[#records + 1] = record
      room = room - size
    end
  end
end
return {cursor, records, left, long})";

// Whether `reply` has the form that this script gives it.
bool is_scan_page(const RedisReply& reply);

}  // namespace qv
