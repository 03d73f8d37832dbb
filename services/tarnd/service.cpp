#include "services/tarnd/service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>
#include <utility>

#include "platform/base/message_log.h"
#include "platform/base/tarn_limits.h"
#include "platform/client/loop_policy.h"
#include "platform/client/thread_master.h"
#include "qv/bridge.h"
#include "services/tarnd/port_name.h"

namespace qv::tarnd {
namespace {

constexpr std::chrono::milliseconds kCommandPause{10};
constexpr size_t kLoggedVlans = 8;  // loops of one port

// The object database's callbacks carry no argument of ours.
Service* g_service = nullptr;

const char* text_of(Trigger trigger) {
    switch (trigger) {
        case Trigger::kPeriod:
            return "a periodic probe";
        case Trigger::kMove:
            return "an address that moved";
        case Trigger::kOverrun:
            return "many addresses that moved";
        case Trigger::kCarrier:
            return "a link that came up";
    }
    return "";
}

std::string in_vlan(uint16_t vid) {
    return vid != 0 ? " in VLAN " + std::to_string(vid) : "";
}

const ProtobufCMessageDescriptor& descriptor(const PBridge__TarnConfig*) {
    return p_bridge__tarn_config__descriptor;
}
const ProtobufCMessageDescriptor& descriptor(const PBridge__TarnPort*) {
    return p_bridge__tarn_port__descriptor;
}
const ProtobufCMessageDescriptor& descriptor(const PBridge__TarnLoopInfo*) {
    return p_bridge__tarn_loop_info__descriptor;
}
const ProtobufCMessageDescriptor& descriptor(const PApp__LdaNcPolicy*) {
    return p_app__lda_nc_policy__descriptor;
}

// Whether this is another result for the port than the one before.
bool is_news(std::map<uint32_t, int>& errors, uint32_t ifx, int error) {
    int& latest = errors[ifx];
    const bool news = latest != error;
    latest = error;
    if (error == 0) {
        errors.erase(ifx);
    }
    return news;
}

template <typename Record>
Record key_of() {
    Record key;
    protobuf_c_message_init(&descriptor(&key), &key);
    return key;
}

// A record, or the confirmation of a subscription: what was stored before it is asked for then.
template <typename Record>
int on_message(qv_mom_client* client, const qv_mom_msg* message) {
    if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
        const auto key = key_of<Record>();
        return qv_mom_scan(client, message->db, &key.base, 0, on_message<Record>, nullptr);
    }
    if (message->value != nullptr && message->oper != QV_MOM_OPER_PUBLISH) {
        g_service->take(*reinterpret_cast<const Record*>(message->value),
                        message->oper == QV_MOM_OPER_DELETE);
    }
    return 0;
}

template <typename Record>
void follow(qv_mom_client* client, uint32_t db) {
    const auto key = key_of<Record>();
    qv_mom_subscribe(client, db, &key.base, 0, on_message<Record>, nullptr);
}

}  // namespace

Role role_of(uint32_t vlan_mode) {
    return vlan_mode == SWPORT_MODE_ACCESS   ? Role::kAccess
           : vlan_mode == SWPORT_MODE_HYBRID ? Role::kHybrid
                                             : Role::kTrunk;
}

std::chrono::milliseconds guard_of(const PBridge__TarnPort& record) {
    const bool valid =
        record.guard_ms >= kShortestGuard_ms && record.guard_ms <= kLongestProbation_ms;
    return std::chrono::milliseconds(valid ? record.guard_ms : 0);
}

Vlans vlans_of(const PBridge__TarnPort& record) {
    std::vector<uint16_t> vlans;
    for (const uint32_t vid : std::span(record.vlans, record.n_vlans)) {
        if (vid <= kLastVlan && vid > (vlans.empty() ? 0 : vlans.back())) {
            vlans.push_back(static_cast<uint16_t>(vid));
        }
    }
    return vlans.empty() ? nullptr
                         : std::make_shared<const std::vector<uint16_t>>(std::move(vlans));
}

Settings settings_of(const PBridge__TarnConfig& record) {
    Settings settings;
    settings.enabled = record.enabled != 0;
    settings.recover = std::chrono::seconds(record.error_recover_interval_s);
    if (record.probe_interval_ms >= kShortestProbeInterval_ms &&
        record.probe_interval_ms <= kLongestProbeInterval_ms) {
        settings.interval = std::chrono::milliseconds(record.probe_interval_ms);
    }
    settings.cut_one = record.cut_one != 0;
    if (record.priority <= kHighestTarnPriority) {
        settings.priority = static_cast<uint8_t>(record.priority);
    }
    return settings;
}

Service::Service(EventLoop& loop, ProbeThread& prober, CutJournal& journal, CutJournal& guards,
                 GuardTable& guard, StatusBoard& board, const Key& own_key)
    : loop_(loop),
      prober_(prober),
      journal_(journal),
      guards_(guards),
      guard_(guard),
      board_(board),
      link_cut_(control_, journal),
      link_guard_(control_, guards),
      client_(qv_mom_client_init("tarnd", master_of(loop), nullptr)),
      loop_log_(loop),
      fabric_key_(own_key),
      take_over_(loop, *this) {
    g_service = this;
    const auto configuration_up = [](void* self) {
        static_cast<Service*>(self)->follow_configuration();
        return 0;
    };
    const auto loops_up = [](void* self) {
        static_cast<Service*>(self)->follow_loops();
        return 0;
    };
    const auto configuration_away = [](void* self) {
        static_cast<Service*>(self)->lose_configuration();
        return 0;
    };
    qv_mom_client_set_disconnect_cb(client_, QV_MOM_CFG_DB, configuration_away, this);
    qv_mom_client_set_reconnect_cb(client_, QV_MOM_CFG_DB, configuration_up, this);
    qv_mom_client_connect(client_, QV_MOM_CFG_DB, configuration_up, this);
    qv_mom_client_set_reconnect_cb(client_, QV_MOM_APP_DB, loops_up, this);
    qv_mom_client_connect(client_, QV_MOM_APP_DB, loops_up, this);

    for (const uint32_t ifx : journal_.noted()) {
        log_message(kLogWarning, "TARN", "LEFT", "An earlier tarnd has cut %s and then ended.",
                    port_name(ifx).c_str());
        take_over_.cut(ifx);
        board_.begin_cut(ifx);
    }
    reports_watch_ = loop_.watch(prober_.reports_fd(), true, false,
                                 [this](EventLoop::Ready) { take_reports(); });
    if (!reports_watch_) {
        throw std::runtime_error("the event loop cannot watch the probing thread");
    }
    refresh_timer_ = loop_.after(kRefresh, [this] { refresh(); });
    const std::string reason = prober_.start();
    if (!reason.empty()) {
        log_message(kLogWarning, "TARN", "PRIORITY",
                    "Probing without priority, a loop is cut later on a busy machine: %s.",
                    reason.c_str());
    }
}

void Service::close() {
    prober_.stop();
    refresh_timer_.reset();
    take_reports();
    for (const uint32_t ifx : take_over_.release()) {
        // The next process takes over the cuts of ports that the switch has shut, as far as is
        // known.
        const auto port = ports_.find(ifx);
        if (port == ports_.end() || !port->second.shut) {
            give_back(ifx);
        }
    }
    open_guarded();
    guard_.remove();
    loop_log_.finish();
    end_records();
}

// The records are read back: the scan is answered after they are written.
void Service::end_records() {
    for (auto& [ifx, record] : records_) {
        if (!record.loops.empty()) {
            for (const auto& [sent_vid, seen] : record.loops) {
                record.ended.emplace(seen.src_ifx, seen.vid);
            }
            record.loops.clear();
            store(ifx, record);
        }
        if (record.stored) {
            last_writes_.insert(ifx);
        }
    }
    if (last_writes_.empty()) {
        return;
    }
    scan_loops();
    bool late = false;
    const EventLoop::Handle end = loop_.after(kLastWrites, [&late] { late = true; });
    while (!last_writes_.empty() && !late && loop_.fetch()) {
        loop_.run();
    }
}

void Service::follow_configuration() {
    take_over_.set_database(true);
    follow<PBridge__TarnConfig>(client_, QV_MOM_CFG_DB);
    follow<PBridge__TarnPort>(client_, QV_MOM_CFG_DB);
    follow<PApp__LdaNcPolicy>(client_, QV_MOM_CFG_DB);
    unconfirmed_ = {.config = true, .policy = true, .ports = {}};
    for (const auto& [ifx, port] : ports_) {
        unconfirmed_.ports.insert(ifx);
    }
    unconfirmed_timer_ = loop_.after(kAllArrived, [this] { drop_unconfirmed(); });
}

// The configuration stays in force while the database is away.
void Service::lose_configuration() {
    take_over_.set_database(false);
    unconfirmed_timer_.reset();
}

// Records that were deleted while the database was away.
void Service::drop_unconfirmed() {
    const Unconfirmed gone = std::exchange(unconfirmed_, {});
    if (gone.config) {
        take(key_of<PBridge__TarnConfig>(), true);
    }
    if (gone.policy) {
        take(key_of<PApp__LdaNcPolicy>(), true);
    }
    for (const uint32_t ifx : gone.ports) {
        PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
        index.ifx = ifx;
        auto record = key_of<PBridge__TarnPort>();
        record.index = &index;
        take(record, true);
    }
}

// Reports that could not be stored, and then what a predecessor has left.
void Service::follow_loops() {
    for (auto& [ifx, record] : records_) {
        if (!record.stored) {
            store(ifx, record);
        }
    }
    scan_loops();
}

void Service::scan_loops() {
    const auto key = key_of<PBridge__TarnLoopInfo>();
    qv_mom_scan(client_, QV_MOM_APP_DB, &key.base, 0, on_message<PBridge__TarnLoopInfo>, nullptr);
}

void Service::take(const PBridge__TarnConfig& record, bool deleted) {
    unconfirmed_.config = false;
    settings_ = deleted ? Settings{} : settings_of(record);
    settings_pending_ = true;
    board_.enable(settings_.enabled);
    key_file_ = deleted ? "" : record.fabric_key;
    follow_key();
    send_commands();
}

// The file is read again every now and then: it may have been repaired or exchanged.
void Service::follow_key() {
    key_pending_ |= fabric_key_.follow(key_file_);
    const std::string& refusal = fabric_key_.refusal();
    if (refusal != key_refusal_ && !refusal.empty()) {
        log_message(kLogError, "TARN", "KEY", "The fabric key is not used: %s.", refusal.c_str());
    } else if (refusal != key_refusal_) {
        log_message(kLogInfo, "TARN", "KEY", "The fabric key is in use.");
    }
    key_refusal_ = refusal;
}

void Service::take(const PBridge__TarnPort& record, bool deleted) {
    if (record.index == nullptr || record.index->ifx == 0) {
        return;
    }
    const uint32_t ifx = record.index->ifx;
    unconfirmed_.ports.erase(ifx);
    if (deleted) {
        ports_.erase(ifx);
        board_.forget_configuration(ifx);
    } else {
        ports_[ifx] = {.watched = record.loop_detect != 0,
                       .vlan_mode = record.vlan_mode,
                       .shut = record.shut != 0,
                       .guard = guard_of(record),
                       .vlans = vlans_of(record)};
        board_.configure(ifx, {.watched = record.loop_detect != 0,
                               .shut = record.shut != 0,
                               .vlan_mode = record.vlan_mode,
                               .guard_ms = record.guard_ms});
    }
    if (deleted || record.shut == 0) {
        take_over_.not_taken(ifx);
    } else if (take_over_.taken(ifx)) {
        journal_.clear(ifx);
        board_.end_cut(ifx);
    }
    command_port(ifx);
}

void Service::take(const PApp__LdaNcPolicy& record, bool deleted) {
    unconfirmed_.policy = false;
    policy_ = deleted ? 0 : record.loop_policy_cli;
    for (const auto& [ifx, port] : ports_) {
        ports_pending_.insert(ifx);
    }
    send_commands();
}

void Service::take(const PBridge__TarnLoopInfo& record, bool deleted) {
    if (deleted || record.index == nullptr) {
        return;
    }
    const uint32_t ifx = record.index->ifx;
    if (record.is_loop == 0) {
        last_writes_.erase(ifx);
        return;
    }
    const auto own = records_.find(ifx);
    if (own == records_.end() || own->second.loops.empty()) {
        LoopRecord& ended = records_[ifx];
        ended.ended = {{record.src_ifx, static_cast<uint16_t>(record.vid)}};
        store(ifx, ended);
    }
}

void Service::command_port(uint32_t ifx) {
    ports_pending_.insert(ifx);
    send_commands();
}

// A full ring takes the rest a little later.
void Service::send_commands() {
    commands_timer_.reset();
    if (settings_pending_) {
        settings_pending_ =
            !prober_.command({.kind = Command::Kind::kSettings, .settings = settings_});
    }
    if (key_pending_) {
        key_pending_ = !prober_.command({.kind = Command::Kind::kKey, .key = fabric_key_.key()});
    }
    while (!settings_pending_ && !ports_pending_.empty()) {
        const uint32_t ifx = *ports_pending_.begin();
        const auto found = ports_.find(ifx);
        const Port port = found != ports_.end() ? found->second : Port{};
        if (!prober_.command(
                {.kind = Command::Kind::kPort,
                 .ifx = ifx,
                 .watched = port.watched,
                 .shuts = port.watched && policy_shuts(policy_, port.vlan_mode),
                 .options = {
                     .role = role_of(port.vlan_mode), .guard = port.guard, .vlans = port.vlans}})) {
            break;
        }
        ports_pending_.erase(ifx);
    }
    if (settings_pending_ || key_pending_ || !ports_pending_.empty()) {
        commands_timer_ = loop_.after(kCommandPause, [this] { send_commands(); });
    }
}

void Service::take_reports() {
    prober_.clear_reports_fd();
    while (const auto report = prober_.next_report()) {
        on_report(*report);
    }
    guard_.apply();
}

void Service::on_report(const Report& report) {
    board_.take(report);
    switch (report.kind) {
        case Report::Kind::kLoop:
            return on_loop(report, true);
        case Report::Kind::kEnd:
            return on_loop(report, false);
        case Report::Kind::kCut:
            return on_cut(report.ifx, report.error);
        case Report::Kind::kElsewhere:
            return guard_.set_elsewhere(report.ifx, true);
        case Report::Kind::kNotElsewhere:
            return guard_.set_elsewhere(report.ifx, false);
        case Report::Kind::kGuard:
            return on_guard(report.ifx, report.closed, report.error);
        case Report::Kind::kPort:
        case Report::Kind::kAsked:
        case Report::Kind::kReturned:
            return;  // for the board alone
    }
}

void Service::on_loop(const Report& report, bool is_loop) {
    LoopRecord& record = records_[report.ifx];
    const LoopRecord::Seen seen{.src_ifx = report.src_ifx, .vid = report.vid};
    const size_t others = record.loops.size() - record.loops.count(report.src_vid);
    const std::string port = port_name(report.ifx);
    if (is_loop && record.loops.empty()) {
        loop_log_.loop_begins(port);
    }
    if (is_loop) {
        record.loops[report.src_vid] = seen;
        record.stored = set_record(report.ifx, seen, true);
    } else {
        record.loops.erase(report.src_vid);
        record.ended[report.src_ifx] = report.vid;
        store(report.ifx, record);
    }
    if (others >= kLoggedVlans) {
        return;
    }
    const LogSubject about{.port = port, .source = "tarn"};
    if (is_loop) {
        loop_log_.say(
            about, {kLogWarning, "LOOP",
                    port + " receives" + in_vlan(report.vid) + " what " +
                        port_name(report.src_ifx) + " sends" + in_vlan(report.src_vid) +
                        ": a loop, found by " + text_of(report.trigger) + ", " +
                        std::to_string(report.path / std::chrono::microseconds(1)) + " us long."});
    } else {
        loop_log_.say(
            about, {kLogInfo, "END", "The loop of " + port + in_vlan(report.vid) + " has ended."});
    }
}

// A port that cannot be opened is tried again ten times a second.
void Service::on_guard(uint32_t ifx, bool closed, int error) {
    const bool news = closed || is_news(not_opened_, ifx, error);
    if (error != 0 && news) {
        const LogAbout about({.port = port_name(ifx), .cause = std::strerror(error)});
        log_message(kLogError, "TARN", "GUARD_PORT", "%s cannot be %s: %s.", port_name(ifx).c_str(),
                    closed ? "guarded, it forwards as soon as its link is up" : "opened",
                    std::strerror(error));
    }
}

// While the probing thread does not run. The next process opens what stays closed.
void Service::open_guarded() {
    for (const uint32_t ifx : guards_.noted()) {
        on_guard(ifx, false, link_guard_.open(ifx));
    }
}

void Service::on_cut(uint32_t ifx, int error) {
    const std::string name = port_name(ifx);
    if (error != 0) {
        const LogAbout about({.port = name, .source = "tarn", .cause = std::strerror(error)});
        log_message(kLogError, "TARN", "CUT", "%s cannot be cut: %s.", name.c_str(),
                    std::strerror(error));
        const std::vector<uint32_t> noted = journal_.noted();
        if (std::find(noted.begin(), noted.end(), ifx) == noted.end()) {
            return;
        }
    } else {
        loop_log_.say({.port = name, .source = "tarn"},
                      {kLogWarning, "CUT", name + " was taken out of service to end a loop."});
    }
    take_over_.cut(ifx);
    board_.begin_cut(ifx);
}

bool Service::ask() {
    const auto key = key_of<PBridge__TarnPort>();
    return qv_mom_scan(client_, QV_MOM_CFG_DB, &key.base, 0, on_message<PBridge__TarnPort>,
                       nullptr) == 0;
}

void Service::give_back(uint32_t ifx) {
    const std::string name = port_name(ifx);
    const int error = link_cut_.give_back(ifx);
    const bool news = is_news(not_returned_, ifx, error);
    board_.give_back(ifx, error);
    if (error != 0 && error != ENODEV) {
        take_over_.cut(ifx);  // to try again
    }
    if (error == 0) {
        loop_log_.say(
            {.port = name, .source = "tarn"},
            {kLogWarning, "RETURN", name + " is in service again: nobody has taken it over."});
    } else if (error != ENODEV && news) {
        log_message(kLogError, "TARN", "RETURN", "%s cannot be brought into service again: %s.",
                    name.c_str(), std::strerror(error));
    }
}

// An end is for both of its ports. What still loops behind one of them is set once more, for each
// port that sends the probes.
void Service::store(uint32_t ifx, LoopRecord& record) {
    std::map<uint32_t, LoopRecord::Seen> lasting;
    for (const auto& [sent_vid, seen] : record.loops) {
        lasting.emplace(seen.src_ifx, seen);
    }
    std::erase_if(record.ended, [&](const auto& ended) {
        return lasting.contains(ended.first) ||
               set_record(ifx, {.src_ifx = ended.first, .vid = ended.second}, false);
    });
    record.stored = record.ended.empty();
    for (const auto& [src_ifx, seen] : lasting) {
        record.stored = set_record(ifx, seen, true) && record.stored;
    }
}

bool Service::set_record(uint32_t ifx, const LoopRecord::Seen& seen, bool is_loop) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    index.ifx = ifx;
    PBridge__TarnLoopInfo info = P_BRIDGE__TARN_LOOP_INFO__INIT;
    info.index = &index;
    info.vid = shown_vid(seen.vid);
    info.is_loop = is_loop ? 1 : 0;
    info.src_ifx = seen.src_ifx;
    return qv_mom_set(client_, QV_MOM_APP_DB, &info.base, 0, 0) == 0;
}

void Service::refresh() {
    refresh_timer_ = loop_.after(kRefresh, [this] { refresh(); });
    for (auto& [ifx, record] : records_) {
        if (!record.loops.empty()) {
            store(ifx, record);
        }
    }
    if (!guard_.installed()) {
        const std::string reason = guard_.install();
        log_message(kLogWarning, "TARN", "GUARD",
                    "The rule that drops returned probes was gone%s%s.",
                    reason.empty() ? "; it is back" : " and cannot be put back: ", reason.c_str());
    }
    follow_key();
    if (key_pending_) {
        send_commands();
    }
    log_ignored();
}

void Service::log_ignored() {
    const auto count = [this](Ignored why) {
        return static_cast<unsigned long long>(prober_.ignored(why));
    };
    const uint64_t bad = count(Ignored::kMalformed) + count(Ignored::kForged);
    if (bad != ignored_logged_) {
        ignored_logged_ = bad;
        log_message(kLogWarning, "TARN", "IGNORED",
                    "Frames that are no probes of ours so far: %llu malformed, %llu with a wrong "
                    "hash.",
                    count(Ignored::kMalformed), count(Ignored::kForged));
    }
}

}  // namespace qv::tarnd
