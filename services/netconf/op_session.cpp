// <lock>, <unlock>, <kill-session> and <create-subscription>.
#include <syslog.h>

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "services/netconf/log.h"
#include "services/netconf/operations.h"
#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

RpcError refused(const std::string& message) {
    return {NC_ERR_OP_FAILED, NC_ERR_TYPE_PROT, message};
}

EditTurn turn_of(const Session& session) {
    EditTurn turn(session.options.runtime_dir);
    if (!turn.ours()) {
        throw RpcError(NC_ERR_IN_USE, NC_ERR_TYPE_PROT, "another session is editing");
    }
    return turn;
}

EventTime time_of(const lyd_node& node) {
    time_t seconds = 0;
    char* fraction = nullptr;  // digits
    ly_time_str2time(lyd_get_value(&node), &seconds, &fraction);
    const std::string digits = std::string(fraction != nullptr ? fraction : "") + "000";
    free(fraction);
    return EventTime(std::chrono::seconds(seconds)) +
           std::chrono::milliseconds(std::stoi(digits.substr(0, 3)));
}

RpcError bad_time(NC_ERR tag, const char* element, const char* message) {
    return RpcError(tag, NC_ERR_TYPE_PROT, message).about(element);
}

// RFC 5277, section 2.1.1, says what to refuse and how.
std::optional<Replay> replay_in(const lyd_node& rpc) {
    const lyd_node* const start = child_named(rpc, "startTime");
    const lyd_node* const stop = child_named(rpc, "stopTime");
    if (start == nullptr && stop != nullptr) {
        throw bad_time(NC_ERR_MISSING_ELEM, "startTime", "stopTime needs startTime");
    }
    if (start == nullptr) {
        return std::nullopt;
    }
    Replay replay{.from = time_of(*start), .until = std::nullopt};
    // Not in the clock's own unit, in which a far future does not fit.
    const auto now =
        std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    if (replay.from > now) {
        throw bad_time(NC_ERR_BAD_ELEM, "startTime", "startTime is in the future");
    }
    if (stop != nullptr) {
        replay.until = time_of(*stop);
        if (*replay.until < replay.from) {
            throw bad_time(NC_ERR_BAD_ELEM, "stopTime", "stopTime lies before startTime");
        }
    }
    return replay;
}

void check_log(const Session& session) {
    Database database(session.options.redis);
    if (!log_state(database)) {
        throw refused("there are no notifications to replay: the agent keeps no log yet");
    }
}

}  // namespace

nc_server_reply* lock(const lyd_node& /*rpc*/, Session& session) {
    const EditTurn turn = turn_of(session);
    if (const auto holder = session.lock.holder()) {
        throw RpcError(NC_ERR_LOCK_DENIED, NC_ERR_TYPE_PROT, who(*holder) + " holds the lock")
            .held_by(holder->session);
    }
    session.lock.take();
    return nc_server_reply_ok();
}

nc_server_reply* unlock(const lyd_node& /*rpc*/, Session& session) {
    const EditTurn turn = turn_of(session);
    if (!session.lock.mine()) {
        throw refused("this session does not hold the lock");
    }
    session.lock.release();
    return nc_server_reply_ok();
}

nc_server_reply* kill_session(const lyd_node& rpc, Session& session) {
    const std::string text = lyd_get_value(child_named(rpc, "session-id"));
    uint32_t id = 0;
    std::from_chars(text.data(), text.data() + text.size(), id);
    if (id == session.number.id()) {
        throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT, "a session cannot kill itself");
    }
    switch (session.number.kill(id)) {
        case Kill::kDone:
            break;
        case Kill::kNoSuchSession:
            throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT, "there is no session " + text);
        case Kill::kNotAllowed:
            throw RpcError(NC_ERR_ACCESS_DENIED, NC_ERR_TYPE_PROT,
                           "session " + text + " is another user's");
        case Kill::kStillThere:
            throw refused("session " + text + " does not end");
    }
    log_line(LOG_NOTICE, "killed session %s", text.c_str());
    return nc_server_reply_ok();
}

nc_server_reply* create_subscription(const lyd_node& rpc, Session& session) {
    const lyd_node* const stream = child_named(rpc, "stream");
    if (stream != nullptr && strcmp(lyd_get_value(stream), "NETCONF") != 0) {
        throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT,
                       std::string("there is no stream \"") + lyd_get_value(stream) + "\"");
    }
    const std::optional<Replay> replay = replay_in(rpc);
    if (replay) {
        check_log(session);
    }
    if (session.subscription) {
        throw refused("this session has a subscription already");
    }
    session.subscription = std::make_unique<Subscription>(session.context, session.options.redis,
                                                          Filter::of(rpc), replay);
    nc_session_inc_notif_status(session.link);
    return nc_server_reply_ok();
}

}  // namespace netconf
