// Writes that the Redis server has not confirmed, in the order of the calls.
//
// A write stays until forget(). One that the server has refused may stay, too, to be sent again; a
// later write of the same record makes it pointless, and it is forgotten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace qv {

struct RedisWrite {
    enum class Kind { kSet, kSetMissing, kErase, kEraseMatching, kPublish };

    uint32_t db;
    Kind kind;
    std::string key;  // or the pattern
    std::string channel;
    std::string notice;
    std::string error = {};  // the first one in its transaction
};

// Numbers grow with each write and are not used again.
class RedisWrites {
 public:
    // Forgets refused writes that this one makes pointless. Returns the write's number.
    uint64_t add(RedisWrite write);
    RedisWrite& at(uint64_t number) { return writes_.at(number); }
    // By number.
    const std::map<uint64_t, RedisWrite>& all() const { return writes_; }
    void forget(uint64_t number);
    // The server has refused the write. Keeps it and returns true if it sets or deletes one record
    // and no later write makes it pointless; otherwise forgets it.
    bool keep_refused(uint64_t number);
    // The refused writes since the last call that are still worth sending.
    std::set<uint64_t> take_refused();
    // The connection is lost, and everything that stays is to be sent again: no write is refused
    // any more. Forgets writes of the kind kSetMissing.
    void lose_connection();
    size_t bytes() const { return bytes_; }

 private:
    bool superseded(uint64_t number) const;

    std::map<uint64_t, RedisWrite> writes_;
    std::set<uint64_t> refused_;
    uint64_t numbers_used_ = 0;
    size_t bytes_ = 0;
};

}  // namespace qv
