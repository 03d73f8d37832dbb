#include "platform/cli/config_lock.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>

#include "platform/base/running_lock.h"
#include "platform/cli/local_time.h"
#include "qv/syslog.h"

namespace qv::cli {

struct ConfigClaim {
    std::string owner;
    std::chrono::system_clock::time_point since;
    std::string cleared_by;               // empty while the claim is valid
    std::unique_ptr<RunningLock> shared;  // null: no NETCONF sessions here
};

namespace {

// Empty when no session holds the lock.
std::weak_ptr<ConfigClaim>& current_claim() {
    static std::weak_ptr<ConfigClaim>& instance = *new std::weak_ptr<ConfigClaim>;
    return instance;
}

// Of the locks of NETCONF sessions; empty: not shared with them.
std::string& shared_folder() {
    static std::string& instance = *new std::string;
    return instance;
}

bool is_shared() {
    std::error_code ignored;
    return !shared_folder().empty() && std::filesystem::is_directory(shared_folder(), ignored);
}

std::string local_time_of(const std::string& rfc3339) {
    std::tm parts{};
    if (strptime(rfc3339.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr) {
        return "an unknown time";
    }
    return local_time(std::chrono::system_clock::from_time_t(timegm(&parts)));
}

std::string netconf_holder() {
    const auto holder =
        shared_folder().empty() ? std::nullopt : RunningLock(shared_folder(), 0, "").holder();
    return holder ? "NETCONF session " + std::to_string(holder->session) + " (" + holder->name +
                        ") since " + local_time_of(holder->since)
                  : "";
}

std::string name_of(const SessionState& session) {
    return session.caller ? describe(*session.caller) : "the switch";
}

std::string locked_by_another() {
    return "The configuration is locked by " + config_lock_holder() + ".";
}

}  // namespace

void share_config_lock(const std::string& folder) {
    shared_folder() = folder;
}

std::string take_config_lock(SessionState& session) {
    if (!config_lock_holder().empty()) {
        return locked_by_another();
    }
    const auto claim = std::make_shared<ConfigClaim>(
        ConfigClaim{name_of(session), std::chrono::system_clock::now(), {}, nullptr});
    File turn;  // held while the lock is taken
    if (is_shared()) {
        turn = create_lock_file(shared_folder() + kEditLock);
        if (turn.open() && !try_lock(turn)) {
            return "A NETCONF session is changing the configuration; try again.";
        }
        claim->shared = std::make_unique<RunningLock>(shared_folder(), 0, claim->owner);
        try {
            claim->shared->take();
        } catch (const std::runtime_error& error) {
            return "The lock that NETCONF sessions share cannot be taken: " +
                   std::string(error.what()) + ".";
        }
    }
    session.claim = claim;
    current_claim() = claim;
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
    claim->shared.reset();
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
    return config_lock_holder().empty() ? "" : locked_by_another();
}

bool holds_config_lock(const SessionState& session) {
    return session.claim && session.claim == current_claim().lock();
}

std::string config_lock_holder() {
    const std::shared_ptr<ConfigClaim> claim = current_claim().lock();
    return claim ? claim->owner + " since " + local_time(claim->since) : netconf_holder();
}

}  // namespace qv::cli
