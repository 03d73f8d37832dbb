#include "platform/driver/linux/redis_writes.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

namespace qv {
namespace {

using Kind = RedisWrite::Kind;

size_t size_of(const RedisWrite& write) {
    return sizeof write + write.key.size() + write.notice.size();
}

// Whether the older write is pointless because of the newer one.
bool supersedes(const RedisWrite& newer, const RedisWrite& older) {
    switch (newer.kind) {
        case Kind::kSet:
        case Kind::kErase:
            return newer.db == older.db && newer.key == older.key;
        case Kind::kEraseMatching:
            return newer.db == older.db && fnmatch(newer.key.c_str(), older.key.c_str(), 0) == 0;
        case Kind::kSetMissing:
        case Kind::kPublish:
            break;
    }
    return false;
}

}  // namespace

uint64_t RedisWrites::add(RedisWrite write) {
    const auto added = writes_.emplace(++numbers_used_, std::move(write)).first;
    bytes_ += size_of(added->second);
    for (auto refused = refused_.begin(); refused != refused_.end();) {
        const bool pointless = supersedes(added->second, writes_.at(*refused));
        if (pointless) {
            forget(*refused);
        }
        refused = pointless ? refused_.erase(refused) : std::next(refused);
    }
    return added->first;
}

void RedisWrites::forget(uint64_t number) {
    bytes_ -= size_of(writes_.at(number));
    writes_.erase(number);
}

bool RedisWrites::keep_refused(uint64_t number) {
    RedisWrite& write = writes_.at(number);
    const bool repeatable = write.kind == Kind::kSet || write.kind == Kind::kErase;
    if (!repeatable || superseded(number)) {
        forget(number);
        return false;
    }
    write.error.clear();
    refused_.insert(number);
    return true;
}

// Replies arrive in the order of the writes, so a later write is still here.
bool RedisWrites::superseded(uint64_t number) const {
    const RedisWrite& write = writes_.at(number);
    return std::any_of(writes_.upper_bound(number), writes_.end(),
                       [&](const auto& later) { return supersedes(later.second, write); });
}

std::set<uint64_t> RedisWrites::take_refused() {
    return std::exchange(refused_, {});
}

void RedisWrites::lose_connection() {
    refused_.clear();
    for (auto write = writes_.begin(); write != writes_.end();) {
        const uint64_t number = write->first;
        write->second.error.clear();
        const bool obsolete = write++->second.kind == Kind::kSetMissing;
        if (obsolete) {
            forget(number);
        }
    }
}

}  // namespace qv
