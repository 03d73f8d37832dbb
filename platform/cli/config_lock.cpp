#include "platform/cli/config_lock.h"

#include <chrono>

#include "platform/cli/local_time.h"
#include "qv/syslog.h"

namespace qv::cli {

struct ConfigClaim {
    std::string owner;
    std::chrono::system_clock::time_point since;
    std::string cleared_by;  // empty while the claim is valid
};

namespace {

// Empty when no session holds the lock.
std::weak_ptr<ConfigClaim>& current_claim() {
    static std::weak_ptr<ConfigClaim>& instance = *new std::weak_ptr<ConfigClaim>;
    return instance;
}

std::string name_of(const SessionState& session) {
    return session.caller ? describe(*session.caller) : "the switch";
}

std::string locked_by_another() {
    return "The configuration is locked by " + config_lock_holder() + ".";
}

}  // namespace

std::string take_config_lock(SessionState& session) {
    if (!current_claim().expired()) {
        return locked_by_another();
    }
    session.claim = std::make_shared<ConfigClaim>(
        ConfigClaim{name_of(session), std::chrono::system_clock::now(), {}});
    current_claim() = session.claim;
    return {};
}

void release_config_lock(SessionState& session) {
    session.claim.reset();
}

bool clear_config_lock(const SessionState& session) {
    const std::shared_ptr<ConfigClaim> claim = current_claim().lock();
    if (!claim) {
        return false;
    }
    claim->cleared_by = name_of(session);
    current_claim().reset();
    printk_syslog_ext(SYSLOG_SEVERITY_WARNING, "CLI", "LOCK",
                      "The configuration lock of %s was cleared by %s.", claim->owner.c_str(),
                      claim->cleared_by.c_str());
    return true;
}

std::string config_lock_refusal(const SessionState& session) {
    if (!session.caller || holds_config_lock(session)) {
        return {};
    }
    if (session.claim && !session.claim->cleared_by.empty()) {
        return "Your configuration lock was cleared by " + session.claim->cleared_by +
               ": leave the configuration modes first.";
    }
    return current_claim().expired() ? "" : locked_by_another();
}

bool holds_config_lock(const SessionState& session) {
    return session.claim && session.claim == current_claim().lock();
}

std::string config_lock_holder() {
    const std::shared_ptr<ConfigClaim> claim = current_claim().lock();
    return claim ? claim->owner + " since " + local_time(claim->since) : "";
}

}  // namespace qv::cli
