// Forwarding-plane ACL service: keeps the ACLs of the process with their entries and applies, turns
// each apply into a rule of the driver, and passes the driver's answers to the handler table.
//
// Every object has an id, and the driver answers by id. Each answer is posted to the loop; if its
// object is removed or replaced before it runs, it is dropped. A failed ACL or entry stays in the
// model until it is removed; a failed apply is removed at once. Loop thread only.
#include "qv/fp_udp.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/base/guarded.h"
#include "platform/client/fp_items.h"
#include "platform/client/platform.h"
#include "platform/driver/forwarding_driver.h"

namespace {

using qv::ForwardingDriver;
using qv::ForwardingId;
using qv::ForwardingRule;

using AclName = std::pair<std::string, uint32_t>;  // application, ACL id
using PointName = std::pair<uint32_t, uint32_t>;   // type, port
enum class Kind { kAcl, kEntry, kApply };

struct Entry {
    ForwardingId id;
    int error;  // from its items or from the plane
    ForwardingRule matches;
};

struct Acl {
    fp_acl_key key;  // as created
    ForwardingId id = 0;
    int error = 0;
    std::vector<Entry> entries;
    std::map<PointName, ForwardingId> applies;
};

// Name in a key or apply point; empty when it is not terminated.
std::string app_of(const char (&app)[FP_APP_NAME_BYTES]) {
    const bool terminated = std::memchr(app, 0, sizeof app) != nullptr;
    return terminated ? std::string(app) : std::string();
}

class FpService final : public qv::ForwardingSink {
 public:
    FpService() { driver().start(*this); }

    int register_app(const char* app) {
        const std::string name = app == nullptr ? "" : app;
        if (name.empty() || name.size() >= FP_APP_NAME_BYTES) {
            return EINVAL;
        }
        apps_.insert(name);
        return 0;
    }

    bool knows_app(const std::string& app) const { return apps_.contains(app); }

    void attach() { attached_ = true; }

    void set_handlers(qv_mom_client* client, const fp_udp_acl_handler& handlers) {
        client_ = client;
        handlers_ = handlers;
    }

    int create_acl(const fp_acl_key& key) {
        const std::string app = app_of(key.app);
        if (!knows_app(app)) {
            return EINVAL;
        }
        Acl& acl = acls_[{app, key.acl_id}];
        if (acl.id != 0 && acl.error == 0) {
            done(acl.id);
            return 0;
        }
        if (acl.id == 0) {  // new, or memory ran out here last time
            acl.key = key;
            acl.id = new_object(Kind::kAcl, acl);
        }
        acl.error = 0;
        driver().reserve(acl.id, ForwardingDriver::Table::kAcl);
        return 0;
    }

    int delete_acl(const fp_acl_key& key) {
        Acl* acl = find(key);
        if (acl == nullptr) {
            return missing(key);
        }
        for (const auto& [point, id] : acl->applies) {
            drop_object(id);
        }
        for (const Entry& entry : acl->entries) {
            drop_object(entry.id);
        }
        drop_object(acl->id);
        acls_.erase({app_of(key.app), key.acl_id});
        return 0;
    }

    int add_entry(const fp_acl_key& key, const fp_entry& entry) {
        Acl* acl = find(key);
        if (acl == nullptr) {
            return missing(key);
        }
        ForwardingRule matches;
        int error = qv::read_matches(entry, matches);
        if (error == 0 && entry.control != 1) {
            error = EINVAL;
        }
        acl->entries.reserve(acl->entries.size() + 1);
        const ForwardingId id = new_object(Kind::kEntry, *acl);
        acl->entries.push_back({id, error, matches});
        if (error != 0) {
            failed(id, error);
        } else {
            driver().reserve(id, ForwardingDriver::Table::kEntry);
        }
        return 0;
    }

    int delete_entry(const fp_acl_key& key, uint32_t index) {
        Acl* acl = find(key);
        if (acl == nullptr || index >= acl->entries.size()) {
            return missing(key);
        }
        const auto entry = acl->entries.begin() + index;
        drop_object(entry->id);
        acl->entries.erase(entry);
        return 0;
    }

    int add_apply(const fp_apply_point& point, const fp_apply& apply) {
        Acl* acl = find(apply.key);
        if (acl == nullptr) {
            return missing(apply.key);
        }
        if (app_of(point.app) != app_of(apply.key.app) ||
            (point.type != FP_APPLY_GLOBAL && point.type != FP_APPLY_PORT)) {
            return EINVAL;
        }
        const ForwardingId id = new_object(Kind::kApply, *acl);
        rules_[id] = acl->key;
        ForwardingId& standing = acl->applies[{point.type, point.port}];
        if (standing != 0) {
            drop_object(standing);
        }
        standing = id;
        ForwardingRule rule;
        int error = rule_matches(*acl, rule);
        if (error == 0) {
            error = qv::read_actions(apply, rule);
        }
        if (error != 0) {
            failed(id, error);
            return 0;
        }
        std::optional<uint32_t> phyid;
        if (point.type == FP_APPLY_PORT) {
            phyid = point.port;
        }
        driver().install(id, phyid, rule);
        return 0;
    }

    int delete_apply(const fp_acl_key& key, const fp_apply_point& point) {
        Acl* acl = find(key);
        if (acl == nullptr) {
            return missing(key);
        }
        const auto found = acl->applies.find({point.type, point.port});
        if (found == acl->applies.end()) {
            return ENOENT;
        }
        drop_object(found->second);
        acl->applies.erase(found);
        return 0;
    }

    int expire(const char* app, bool applies) {
        if (app == nullptr || !knows_app(app)) {
            return EINVAL;
        }
        // ACLs and entries exist in this process only; rules may outlive theirs.
        if (applies) {
            driver().remove_leftovers();
        }
        return 0;
    }

    // ---- ForwardingSink ----

    void done(ForwardingId id) override { post_result(id, 0); }

    void failed(ForwardingId id, int error) override {
        const auto found = objects_.find(id);
        if (found == objects_.end()) {
            return;
        }
        const Object object = found->second;
        mark_failed(object, id, error);
        post_result(id, error);
        if (object.kind != Kind::kApply) {
            fail_applies(*object.acl);
        }
    }

    void counted(ForwardingId id, uint64_t packets, uint64_t bytes) override {
        const auto rule = rules_.find(id);
        if (!attached_ || rule == rules_.end() || handlers_.counter == nullptr) {
            return;
        }
        const fp_acl_key key = rule->second;
        const fp_counts counts = {packets, bytes};
        handlers_.counter(client_, &key, nullptr, &counts);
    }

 private:
    struct Object {
        Kind kind;
        Acl* acl;  // outlives its entries and applies
    };

    static ForwardingDriver& driver() { return qv::platform().forwarding(); }

    Acl* find(const fp_acl_key& key) {
        const auto found = acls_.find({app_of(key.app), key.acl_id});
        return found == acls_.end() ? nullptr : &found->second;
    }

    // The error for a key without an object.
    int missing(const fp_acl_key& key) const {
        return knows_app(app_of(key.app)) ? ENOENT : EINVAL;
    }

    ForwardingId new_object(Kind kind, Acl& acl) {
        objects_[++last_id_] = {kind, &acl};
        return last_id_;
    }

    void drop_object(ForwardingId id) {
        objects_.erase(id);
        rules_.erase(id);
        driver().remove(id);
    }

    // Sets `rule` to the matches of the ACL's first entry, which hold for all its rules. Returns
    // zero, or an errno when the ACL cannot be a rule.
    static int rule_matches(const Acl& acl, ForwardingRule& rule) {
        if (acl.error != 0) {
            return acl.error;
        }
        if (acl.entries.empty()) {
            return EINVAL;
        }
        rule = acl.entries.front().matches;
        return acl.entries.front().error;
    }

    void mark_failed(const Object& object, ForwardingId id, int error) {
        Acl& acl = *object.acl;
        if (object.kind == Kind::kAcl) {
            acl.error = error;
        }
        for (Entry& entry : acl.entries) {
            if (entry.id == id) {
                entry.error = error;
            }
        }
    }

    // Removes the rules of an ACL that has failed, or whose first entry has.
    void fail_applies(const Acl& acl) {
        ForwardingRule rule;
        const int error = rule_matches(acl, rule);
        if (error == 0) {
            return;
        }
        for (const auto& [point, id] : acl.applies) {
            driver().remove(id);
            post_result(id, error);
        }
    }

    void post_result(ForwardingId id, int error) {
        qv::platform().loop().post([this, id, error] { deliver(id, error); });
    }

    void deliver(ForwardingId id, int error) {
        const auto found = objects_.find(id);
        if (found == objects_.end()) {
            return;
        }
        const Kind kind = found->second.kind;
        Acl& acl = *found->second.acl;
        const fp_acl_key key = acl.key;
        if (kind == Kind::kApply && error != 0) {
            std::erase_if(acl.applies, [id](const auto& apply) { return apply.second == id; });
            objects_.erase(found);
            rules_.erase(id);
        }
        if (!attached_) {
            return;
        }
        const auto [success, failure] = handlers_of(kind);
        if (error == 0 && success != nullptr) {
            success(client_, &key);
        }
        if (error != 0 && failure != nullptr) {
            failure(client_, &key, error);
        }
    }

    std::pair<fp_success_handler, fp_failed_handler> handlers_of(Kind kind) const {
        switch (kind) {
            case Kind::kAcl:
                return {handlers_.acl_success, handlers_.acl_failed};
            case Kind::kEntry:
                return {handlers_.entry_success, handlers_.entry_failed};
            case Kind::kApply:
                return {handlers_.apply_success, handlers_.apply_failed};
        }
        return {};
    }

    std::set<std::string> apps_;
    bool attached_ = false;
    qv_mom_client* client_ = nullptr;
    fp_udp_acl_handler handlers_{};
    std::map<AclName, Acl> acls_;
    std::unordered_map<ForwardingId, Object> objects_;
    // A second index of the applies, for counter reports: looking them up in the maps above would
    // miss the cache when thousands of counters report.
    std::unordered_map<ForwardingId, fp_acl_key> rules_;
    ForwardingId last_id_ = 0;
};

// Lives as long as the process: the driver reports to it.
FpService& service() {
    static auto* instance = new FpService;
    return *instance;
}

// ---- The operation table ----

template <class Target>
int add_item(Target* target, const fp_item* item) {
    if (target->item_num >= FP_ITEMS_MAX) {
        return ENOSPC;
    }
    target->item[target->item_num++] = *item;
    return 0;
}

int acl_create(qv_mom_client*, const fp_acl_key* key) {
    return qv::guarded(ENOMEM, [&] { return service().create_acl(*key); });
}

int acl_delete(qv_mom_client*, const fp_acl_key* key) {
    return qv::guarded(ENOMEM, [&] { return service().delete_acl(*key); });
}

int entry_add(qv_mom_client*, const fp_acl_key* key, const fp_entry* entry) {
    return qv::guarded(ENOMEM, [&] { return service().add_entry(*key, *entry); });
}

int entry_delete(qv_mom_client*, const fp_acl_key* key, uint32_t index) {
    return qv::guarded(ENOMEM, [&] { return service().delete_entry(*key, index); });
}

int apply_add(qv_mom_client*, const fp_apply_point* point, uint32_t, const fp_apply* apply) {
    return qv::guarded(ENOMEM, [&] { return service().add_apply(*point, *apply); });
}

int apply_delete(qv_mom_client*, const fp_acl_key* key, const fp_apply_point* point) {
    return qv::guarded(ENOMEM, [&] { return service().delete_apply(*key, *point); });
}

int acl_expire_add(void*, const char* app) {
    return qv::guarded(ENOMEM, [&] { return service().expire(app, false); });
}

int entry_expire_add(void*, const char* app) {
    return qv::guarded(ENOMEM, [&] { return service().expire(app, false); });
}

int apply_expire_add(void*, const char* app) {
    return qv::guarded(ENOMEM, [&] { return service().expire(app, true); });
}

fp_entry* entry_alloc() {
    auto* entry = new (std::nothrow) fp_entry{};
    if (entry != nullptr) {
        entry->build_item = qv::build_item;
        entry->add_item = add_item<fp_entry>;
    }
    return entry;
}

void entry_free(fp_entry* entry) {
    delete entry;
}

fp_apply* apply_alloc(const fp_acl_key* key) {
    auto* apply = new (std::nothrow) fp_apply{};
    if (apply != nullptr) {
        apply->key = *key;
        apply->build_item = qv::build_item;
        apply->add_item = add_item<fp_apply>;
    }
    return apply;
}

void apply_free(fp_apply* apply) {
    delete apply;
}

constexpr fp_udp_mgr kOperations = {
    .acl_create = acl_create,
    .acl_delete = acl_delete,
    .acl_expire_add = acl_expire_add,
    .reserved_3 = nullptr,
    .reserved_4 = nullptr,
    .reserved_5 = nullptr,
    .entry_add = entry_add,
    .entry_delete = entry_delete,
    .entry_expire_add = entry_expire_add,
    .reserved_9 = nullptr,
    .entry_alloc = entry_alloc,
    .entry_free = entry_free,
    .reserved_12 = nullptr,
    .reserved_13 = nullptr,
    .apply_add = apply_add,
    .apply_delete = apply_delete,
    .apply_expire_add = apply_expire_add,
    .reserved_17 = nullptr,
    .apply_alloc = apply_alloc,
    .apply_free = apply_free,
};

}  // namespace

extern "C" {

int fp_udp_register_app_type(const char* app) {
    return qv::guarded(ENOMEM, [app] { return service().register_app(app); });
}

int fp_udp_cgst_register(qv_mom_client* client, uint32_t, const char* name) {
    if (client == nullptr || name == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [] {
        service().attach();
        return 0;
    });
}

int fp_udp_register_acl_handler(qv_mom_client* client, uint32_t,
                                const fp_udp_acl_handler* handlers) {
    if (client == nullptr || handlers == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        service().set_handlers(client, *handlers);
        return 0;
    });
}

const fp_udp_mgr* fp_udp_get_mgr(void) {
    return &kOperations;
}

}  // extern "C"
