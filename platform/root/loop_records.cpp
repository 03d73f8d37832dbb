#include "platform/root/loop_records.h"

#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "platform/base/guarded.h"
#include "platform/cli/held_ports.h"
#include "platform/client/own_records.h"
#include "qv/mom.h"

namespace qv {
namespace {

constexpr uint64_t kReports = 1;  // number of the only subscription, and of its scan

std::string_view report_type() {
    return p_bridge__tarn_loop_info__descriptor.name;
}

struct ReportFree {
    void operator()(PBridge__TarnLoopInfo* report) const {
        p_bridge__tarn_loop_info__free_unpacked(report, nullptr);
    }
};

struct EntryFree {
    void operator()(PApp__LdaLoopEntry* entry) const {
        p_app__lda_loop_entry__free_unpacked(entry, nullptr);
    }
};

}  // namespace

LoopRecords::LoopRecords(StoreDriver& store) : client_(store.connect(*this)) {
    own_records().on_added([this](uint32_t db, const std::string& key, const auto& packed) {
        guarded([&] { added(db, key, packed); });  // the record is set in any case
    });
    client_->open(QV_MOM_APP_DB);
}

// ---- Entries of this process ----

void LoopRecords::added(uint32_t db, const std::string& key, const std::vector<uint8_t>& packed) {
    if (db != QV_MOM_APP_DB || type_of_key(key) != p_app__lda_loop_entry__descriptor.name) {
        return;
    }
    const std::unique_ptr<PApp__LdaLoopEntry, EntryFree> entry(
        p_app__lda_loop_entry__unpack(nullptr, packed.size(), packed.data()));
    if (entry != nullptr && entry->index != nullptr) {
        entries_[key] = entry->index->name;
        cli::held_ports().loop_found(entry->index->name);
    }
}

void LoopRecords::erased(uint32_t db, const std::string& key) {
    const auto found = entries_.find(key);
    if (db == QV_MOM_APP_DB && found != entries_.end() && !own_records().contains(db, key)) {
        cli::held_ports().loop_ended(found->second);
        entries_.erase(found);
    }
}

// ---- Reports of the probe protocol ----

// Records may have been deleted while the database was away.
void LoopRecords::session_up(uint32_t db) {
    cli::held_ports().forget_probe_reports();
    changed_.clear();
    client_->subscribe(db, report_type(), kReports);
}

void LoopRecords::subscribed(uint64_t subscription) {
    scanning_ = client_->scan(QV_MOM_APP_DB, report_type(), subscription);
}

void LoopRecords::scan_done(uint64_t) {
    scanning_ = false;
    changed_.clear();
}

void LoopRecords::notice(uint64_t, Bytes notice) {
    if (!notice.empty() && notice[0] < static_cast<uint8_t>(StoreOper::kPublish)) {
        take(notice.subspan(1), static_cast<StoreOper>(notice[0]), false);
    }
}

void LoopRecords::scanned(uint64_t, std::string_view, Bytes record) {
    take(record, StoreOper::kSet, true);
}

void LoopRecords::take(Bytes record, StoreOper oper, bool from_scan) {
    const std::unique_ptr<PBridge__TarnLoopInfo, ReportFree> report(
        p_bridge__tarn_loop_info__unpack(nullptr, record.size(), record.data()));
    if (report == nullptr || report->index == nullptr) {
        return;
    }
    const uint32_t ifx = report->index->ifx;
    if (from_scan && changed_.contains(ifx)) {
        return;
    }
    if (!from_scan && scanning_) {
        changed_.insert(ifx);
    }
    cli::held_ports().probe_reports({.ifx = ifx, .src_ifx = report->src_ifx, .vid = report->vid},
                                    oper == StoreOper::kSet && report->is_loop != 0);
}

}  // namespace qv
