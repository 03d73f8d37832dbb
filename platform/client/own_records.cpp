#include "platform/client/own_records.h"

#include <fnmatch.h>

#include "platform/client/loop_metrics.h"
#include "platform/client/platform.h"

namespace qv {

bool OwnRecords::contains(uint32_t db, const std::string& key) const {
    return records_.contains({db, key});
}

void OwnRecords::on_added(AddedCallback callback) {
    added_ = std::move(callback);
}

void OwnRecords::on_erased(ErasedCallback callback) {
    erased_ = std::move(callback);
}

void OwnRecords::set(const qv_mom_client* owner, uint32_t db, const std::string& key,
                     std::vector<uint8_t> packed) {
    const auto [record, added] =
        records_.insert_or_assign(Id(db, key), Record{owner, std::move(packed)});
    if (!added) {
        return;
    }
    count_own_record(key);
    if (added_) {
        added_(db, key, record->second.packed);
    }
}

void OwnRecords::for_each(const qv_mom_client* owner, const Visitor& visit) const {
    for (const auto& [id, record] : records_) {
        if (record.owner == owner) {
            visit(id, record.packed);
        }
    }
}

StoreKeys OwnRecords::keys_after(const qv_mom_client* owner, const Id& after, size_t limit) const {
    StoreKeys found;
    const auto collect = [&](Records::const_iterator record, Records::const_iterator end) {
        for (; record != end && found.keys.size() < limit; ++record) {
            const auto& [db, key] = record->first;
            if (record->second.owner != owner) {
                continue;
            }
            if (!found.keys.empty() && db != found.db) {
                return;
            }
            found.db = db;
            found.keys.push_back(key);
        }
    };
    const auto next = records_.upper_bound(after);
    collect(next, records_.end());
    if (found.keys.empty()) {
        collect(records_.begin(), next);
    }
    return found;
}

void OwnRecords::erase(uint32_t db, const std::string& key) {
    const auto found = records_.find({db, key});
    if (found != records_.end()) {
        erase(found);
    }
}

void OwnRecords::erase_matching(uint32_t db, const std::string& glob) {
    auto record = records_.lower_bound({db, ""});
    while (record != records_.end() && record->first.first == db) {
        const bool matches = fnmatch(glob.c_str(), record->first.second.c_str(), 0) == 0;
        record = matches ? erase(record) : std::next(record);
    }
}

OwnRecords::Records::iterator OwnRecords::erase(Records::iterator record) {
    discount_own_record(record->first.second);
    if (erased_) {
        platform().loop().post([this, id = record->first] {
            if (erased_) {
                erased_(id.first, id.second);
            }
        });
    }
    return records_.erase(record);
}

OwnRecords& own_records() {
    static auto& records = *new OwnRecords;  // never destroyed, like the clients that fill it
    return records;
}

}  // namespace qv
