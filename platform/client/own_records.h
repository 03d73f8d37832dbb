// The records that clients of this process have set in the object database and not deleted since.
// The client library keeps the list and writes these records again when the server has lost them.
// Loop thread only.
//
// A delete removes its records from the list even when the database is away and the call fails: the
// process no longer wants them. Changes by other programs do not change the list.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/driver/store_driver.h"

struct qv_mom_client;

namespace qv {

class OwnRecords {
 public:
    using AddedCallback = std::function<void(uint32_t db, const std::string& key,
                                             const std::vector<uint8_t>& packed)>;
    using ErasedCallback = std::function<void(uint32_t db, const std::string& key)>;

    // `key` is the key text of docs/object-database.md, "p_app.lda_loop_entry/name=swp3".
    bool contains(uint32_t db, const std::string& key) const;

    // Runs `callback` inside the call that sets a record which was not in the list. It must not
    // change the list. There is one callback: a later one replaces it, null removes it.
    void on_added(AddedCallback callback);
    // Runs `callback` from the loop, once for each record that this process deletes, by
    // qv_mom_pdel() too. The record may have been set again by then; contains() tells. There is one
    // callback: a later one replaces it, null removes it.
    void on_erased(ErasedCallback callback);

    // The rest is for the implementation of qv/mom.h.

    using Id = std::pair<uint32_t, std::string>;  // database, key
    using Visitor = std::function<void(const Id& id, const std::vector<uint8_t>& packed)>;

    // The client that last set a record owns it and writes it again after a loss.
    void set(const qv_mom_client* owner, uint32_t db, const std::string& key,
             std::vector<uint8_t> packed);
    void erase(uint32_t db, const std::string& key);
    void erase_matching(uint32_t db, const std::string& glob);

    // Visits the records by database and key; `visit` must not change the list.
    void for_each(const qv_mom_client* owner, const Visitor& visit) const;
    // Returns up to `limit` keys of one database that follow `after`, starting over after the last
    // one.
    StoreKeys keys_after(const qv_mom_client* owner, const Id& after, size_t limit) const;

 private:
    struct Record {
        const qv_mom_client* owner;
        std::vector<uint8_t> packed;
    };
    using Records = std::map<Id, Record>;

    Records::iterator erase(Records::iterator record);

    Records records_;
    AddedCallback added_;
    ErasedCallback erased_;
};

// The list of this process.
OwnRecords& own_records();

}  // namespace qv
