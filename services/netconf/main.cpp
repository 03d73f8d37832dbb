// lda-netconf: one NETCONF session on standard input and output.
//
// sshd starts one such process for each session, so a message that crashes the parser ends only the
// session that sent it. The process reads and changes the switch only through records of the object
// database; sessions coordinate by locks on files in one folder (shared_state.h). It has two
// threads: the main thread serves the session and sleeps in poll(2), the other one reads standard
// input (stdin_relay.h).
#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "platform/base/visible.h"
#include "services/netconf/log.h"
#include "services/netconf/session.h"

namespace {

// A session needs a few megabytes. The limit ends one whose message makes the parser take more,
// before the switch runs out of memory.
constexpr rlim_t kMemoryLimit_bytes = rlim_t{128} << 20;

// The switch's own work precedes the requests of its clients.
constexpr int kNice = 10;

std::string user_name() {
    const passwd* const entry = getpwuid(getuid());
    return entry == nullptr ? std::to_string(getuid()) : entry->pw_name;
}

int run(const netconf::Options& options) {
    const rlimit memory{kMemoryLimit_bytes, kMemoryLimit_bytes};
    setrlimit(RLIMIT_DATA, &memory);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + kNice);
    signal(SIGPIPE, SIG_IGN);
    umask(0007);

    const std::string user = user_name();
    const netconf::SessionNumber number(options.runtime_dir, getuid());
    netconf::log_as("session " + std::to_string(number.id()) + " (" + user + ")");
    netconf::log_fatal_signals();
    const netconf::Context context = netconf::load_modules(options.yang_dir);
    return netconf::run_session(options, context.get(), number, user);
}

}  // namespace

int main(int count, char** words) {
    try {
        const netconf::Options options = netconf::read_options(count, words);
        if (options.help) {
            fputs(netconf::usage().c_str(), stdout);
            return 0;
        }
        netconf::open_log(options.log_to_stderr);
        return run(options);
    } catch (const std::exception& error) {
        fprintf(stderr, "lda-netconf: %s\n", qv::visible(error.what()).c_str());
        netconf::log_line(LOG_ERR, "%s", error.what());
        return 2;
    }
}
