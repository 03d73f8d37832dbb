#include "services/netconf/session.h"

#include <fcntl.h>
#include <libnetconf2/log.h>
#include <libnetconf2/messages_server.h>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <stdexcept>

#include "services/netconf/access.h"
#include "services/netconf/client_quirks.h"
#include "services/netconf/log.h"
#include "services/netconf/operations.h"
#include "services/netconf/request_check.h"
#include "services/netconf/rpc_error.h"
#include "services/netconf/stdin_relay.h"
#include "services/netconf/xpath.h"

namespace netconf {
namespace {

// A write blocks while the client does not read. After this time SIGALRM ends the session (see
// log_fatal_signals).
constexpr unsigned kBlockLimit_s = 30;
constexpr uint16_t kHelloLimit_s = 30;
constexpr int kUnreadLimit_ms = 5000;          // for a client that does not read its notifications
constexpr int kIdleLimit_ms = 30 * 60 * 1000;  // between requests, without a subscription

// Also frees the sessions in it.
struct FreePoll {
    void operator()(nc_pollsession* polled) const {
        nc_ps_clear(polled, 1, nullptr);
        nc_ps_free(polled);
    }
};

struct BlockGuard {
    explicit BlockGuard(unsigned limit_s = kBlockLimit_s) { alarm(limit_s); }
    ~BlockGuard() { alarm(0); }
};

void on_library_log(const nc_session* /*session*/, NC_VERB_LEVEL level, const char* text) {
    if (level == NC_VERB_ERROR) {
        log_line(LOG_INFO, "%s", text);
    }
}

void ignore_library_log(const nc_session* /*session*/, NC_VERB_LEVEL /*level*/,
                        const char* /*text*/) {}

// libnetconf2 always numbers the sessions of a process 1, 2, 3, but our numbers must differ between
// processes. Each attempt to accept a session uses up a number, so attempts on /dev/null use up
// those below our own (15 us each).
void skip_session_ids_below(uint32_t id) {
    const qv::File nobody(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!nobody.open()) {
        throw std::runtime_error("/dev/null cannot be opened");
    }
    nc_set_print_clb_session(ignore_library_log);
    for (uint32_t skipped = 1; skipped < id; skipped++) {
        nc_session* refused = nullptr;
        nc_accept_inout(nobody.fd(), nobody.fd(), "nobody", &refused);
        nc_session_free(refused, nullptr);
    }
    nc_set_print_clb_session(on_library_log);
}

const char* reason_of(NC_MSG_TYPE answer) {
    switch (answer) {
        case NC_MSG_BAD_HELLO:
            return "the client's hello is invalid";
        case NC_MSG_WOULDBLOCK:
            return "the client sent no hello in time";
        case NC_MSG_ERROR:
        case NC_MSG_NONE:
        case NC_MSG_HELLO:
        case NC_MSG_RPC:
        case NC_MSG_REPLY:
        case NC_MSG_REPLY_ERR_MSGID:
        case NC_MSG_NOTIF:
            break;
    }
    return "the client went before its hello was complete";
}

constexpr short kGone = POLLERR | POLLHUP;

// The readiness of standard output: bits of POLLOUT and kGone.
short output_state() {
    pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    poll(&output, 1, 0);
    return output.revents;
}

// False when the session is over.
bool send_event(Session& session, Event event) {
    nc_server_notif* const notification =
        nc_server_notif_new(event.tree.get(), event.time.data(), NC_PARAMTYPE_CONST);
    const BlockGuard guard;
    const NC_MSG_TYPE sent = nc_server_notif_send(session.link, notification, -1);
    nc_server_notif_free(notification);
    return sent == NC_MSG_NOTIF;
}

// False when the session is over.
bool serve_request(nc_pollsession* polled) {
    const BlockGuard guard;
    const int outcome = nc_ps_poll(polled, 0, nullptr);
    return (outcome & (NC_PSPOLL_SESSION_TERM | NC_PSPOLL_SESSION_ERROR)) == 0;
}

enum class Step { kAgain, kWait, kOver };

// Sends the next notification if there is one.
Step send_next_event(Session& session) {
    auto event = session.subscription ? session.subscription->next() : std::nullopt;
    if (!event) {
        return Step::kWait;
    }
    const bool sent = send_event(session, std::move(*event));
    if (session.subscription->over()) {
        session.subscription.reset();
        nc_session_dec_notif_status(session.link);
    }
    return sent ? Step::kAgain : Step::kOver;
}

// The client does not read its notifications, or sends no requests.
struct ClientTooSlow : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Sleeps until a request, a notice of the database or a timer is due, and serves the first two.
// While the client does not read, its requests wait too, since each one needs an answer. Throws
// ClientTooSlow when Subscription::kMaxPending notifications wait and the client has not read for
// kUnreadLimit_ms, and when a client without a subscription has been idle for kIdleLimit_ms.
Step wait(const Session& session, const StdinRelay& requests, nc_pollsession* polled,
          bool writable) {
    Subscription* const subscription = session.subscription.get();
    const bool full = subscription != nullptr && subscription->full();
    const bool stalled = full && !writable;
    const short input = writable ? POLLIN : 0;
    const short output = writable ? 0 : POLLOUT;
    std::array<pollfd, 3> watched{{
        {.fd = requests.fd(), .events = input, .revents = 0},
        {.fd = STDOUT_FILENO, .events = output, .revents = 0},
        {.fd = subscription == nullptr || full ? -1 : subscription->fd(),
         .events = POLLIN,
         .revents = 0},
    }};
    const int limit_ms = subscription == nullptr ? kIdleLimit_ms : subscription->wait_ms(writable);
    const int ready = poll(watched.data(), watched.size(), stalled ? kUnreadLimit_ms : limit_ms);
    if (ready == 0 && stalled) {
        throw ClientTooSlow("the client leaves " + std::to_string(Subscription::kMaxPending) +
                            " notifications unread");
    }
    if (ready == 0 && subscription == nullptr) {
        throw ClientTooSlow("no request for 30 minutes");
    }
    if (subscription != nullptr && (watched[2].revents != 0 || subscription->fd() < 0)) {
        subscription->receive();
    }
    const bool gone = (watched[1].revents & kGone) != 0;
    return gone || (watched[0].revents != 0 && !serve_request(polled)) ? Step::kOver : Step::kAgain;
}

// Serves until the session is over. Sleeps in poll(2): the waiting of libnetconf2 would wake up
// every tenth of a millisecond.
void serve(Session& session, const StdinRelay& requests, nc_pollsession* polled) {
    for (Step step = Step::kAgain; step != Step::kOver;) {
        const bool writable = (output_state() & POLLOUT) != 0;
        step = writable ? send_next_event(session) : Step::kWait;
        if (step == Step::kWait) {
            step = wait(session, requests, polled, writable);
        }
    }
}

// Logs why the session ended. 0 when the client closed or dropped it.
int log_end(const nc_session* link, const StdinRelay& requests) {
    if (requests.fault() != nullptr) {
        log_line(LOG_WARNING, "ended: %s", requests.fault());
        return 1;
    }
    switch (nc_session_get_term_reason(link)) {
        case NC_SESSION_TERM_CLOSED:
            log_line(LOG_INFO, "closed");
            return 0;
        case NC_SESSION_TERM_DROPPED:
            log_line(LOG_INFO, "ended: the client went away");
            return 0;
        case NC_SESSION_TERM_NONE:
        case NC_SESSION_TERM_ERR:
        case NC_SESSION_TERM_KILLED:
        case NC_SESSION_TERM_TIMEOUT:
        case NC_SESSION_TERM_BADHELLO:
        case NC_SESSION_TERM_OTHER:
            break;
    }
    if ((output_state() & kGone) != 0) {
        log_line(LOG_INFO, "ended: the client went away");
        return 0;
    }
    log_line(LOG_WARNING, "ended: the client's input is invalid");
    return 1;
}

}  // namespace

int run_session(const Options& options, ly_ctx* context, const SessionNumber& number,
                const std::string& user) {
    nc_verbosity(NC_VERB_ERROR);
    Session session{.options = options,
                    .context = context,
                    .number = number,
                    .lock = qv::RunningLock(options.runtime_dir, number.id(), user),
                    .subscription = nullptr,
                    .link = nullptr,
                    .may_change = may_change(options.write_group)};
    start_server(context);
    skip_session_ids_below(number.id());
    const StdinRelay requests([context](std::string& text) {
        const std::lock_guard lock(libyang_in_use());
        adapt_message(text);
        replace_bad_request(context, text);
    });
    nc_session* accepted = nullptr;
    NC_MSG_TYPE answer;
    {
        nc_server_set_hello_timeout(kHelloLimit_s);
        const BlockGuard guard(kHelloLimit_s + kBlockLimit_s);
        answer = nc_accept_inout(requests.fd(), STDOUT_FILENO, user.c_str(), &accepted);
    }
    if (answer != NC_MSG_HELLO) {
        log_line(LOG_WARNING, "ended: %s",
                 requests.fault() == nullptr ? reason_of(answer) : requests.fault());
        return 1;
    }
    const std::unique_ptr<nc_pollsession, FreePoll> polled(nc_ps_new());
    nc_ps_add_session(polled.get(), accepted);
    session.link = accepted;
    nc_session_set_data(accepted, &session);
    if (nc_session_get_id(accepted) != number.id()) {
        throw std::runtime_error("libnetconf2 numbers sessions differently");
    }
    log_line(LOG_INFO, "begins");
    try {
        serve(session, requests, polled.get());
    } catch (const ClientTooSlow& slow) {
        log_line(LOG_WARNING, "ended: %s", slow.what());
        return 1;
    } catch (const RpcError& denied) {  // of a notification's filter: there is nothing to answer
        log_line(LOG_WARNING, "ended: %s", denied.what());
        return 1;
    }
    return log_end(accepted, requests);
}

std::string who(const qv::RunningLockHolder& holder) {
    return holder.session != 0 ? "session " + std::to_string(holder.session)
                               : "the operator " + holder.name;
}

}  // namespace netconf
