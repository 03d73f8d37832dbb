#include "services/netconf/log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>

namespace netconf {
namespace {

constexpr size_t kLineBytes = 512;

std::string g_prefix;
bool g_to_stderr = false;

// The line that a signal logs, composed beforehand: a handler may neither allocate nor lock.
struct SignalLine {
    int signal;
    int priority;
    int status;  // of the process
    const char* message;
    std::array<char, kLineBytes> text;
    size_t length;  // of the text
    size_t tag;     // length of the leading "<30>", which is for the system log only
};

std::array<SignalLine, 9> g_signal_lines{{
    {SIGTERM, LOG_NOTICE, 0, "terminated from outside", {}, 0, 0},
    {SIGHUP, LOG_NOTICE, 0, "terminated from outside", {}, 0, 0},
    {SIGINT, LOG_NOTICE, 0, "terminated from outside", {}, 0, 0},
    {SIGALRM, LOG_WARNING, 1, "ended: a message took too long, or nobody reads", {}, 0, 0},
    {SIGSEGV, LOG_ERR, 1, "ended: a message broke the parser (memory)", {}, 0, 0},
    {SIGBUS, LOG_ERR, 1, "ended: a message broke the parser (bus)", {}, 0, 0},
    {SIGABRT, LOG_ERR, 1, "ended: a message broke the parser (abort)", {}, 0, 0},
    {SIGFPE, LOG_ERR, 1, "ended: a message broke the parser (arithmetic)", {}, 0, 0},
    {SIGILL, LOG_ERR, 1, "ended: a message broke the parser (instruction)", {}, 0, 0},
}};
int g_system_log = -1;

void on_signal(int number) {
    for (const SignalLine& line : g_signal_lines) {
        if (line.signal != number) {
            continue;
        }
        if (g_system_log >= 0) {
            send(g_system_log, line.text.data(), line.length - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (g_to_stderr) {
            const ssize_t written =
                write(STDERR_FILENO, line.text.data() + line.tag, line.length - line.tag);
            static_cast<void>(written);  // a failure cannot be reported any more
        }
        _exit(line.status);
    }
}

// -1 when there is no system log, which is not a reason to refuse service.
int connect_system_log() {
    const int link = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    if (link >= 0 &&
        connect(link, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(link);
        return -1;
    }
    return link;
}

void compose(SignalLine& line) {
    const int tag = snprintf(line.text.data(), kLineBytes, "<%d>", LOG_DAEMON | line.priority);
    line.tag = static_cast<size_t>(tag);
    const int rest =
        snprintf(line.text.data() + tag, kLineBytes - line.tag, "lda-netconf[%d]: %.200s: %s\n",
                 getpid(), g_prefix.c_str(), line.message);
    line.length = line.tag + static_cast<size_t>(rest);
}

}  // namespace

void open_log(bool also_to_stderr) {
    g_to_stderr = also_to_stderr;
    openlog("lda-netconf", LOG_PID | (also_to_stderr ? LOG_PERROR : 0), LOG_DAEMON);
}

void log_as(const std::string& who) {
    g_prefix = who;
}

void log_line(int priority, const char* format, ...) {
    std::array<char, kLineBytes> text;
    va_list values;
    va_start(values, format);
    vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    // Parts of the text come from clients, which must not be able to forge log lines.
    for (char* at = text.data(); *at != '\0'; at++) {
        if (*at < ' ' || *at > '~') {
            *at = *at == '\n' ? ' ' : '?';
        }
    }
    if (g_prefix.empty()) {
        syslog(priority, "%s", text.data());
    } else {
        syslog(priority, "%s: %s", g_prefix.c_str(), text.data());
    }
}

void use_signal_stack() {
    alignas(16) static thread_local std::array<char, 16384> stack;
    const stack_t alternative{.ss_sp = stack.data(), .ss_flags = 0, .ss_size = stack.size()};
    sigaltstack(&alternative, nullptr);
}

void log_fatal_signals() {
    if (g_system_log < 0) {
        g_system_log = connect_system_log();
    }
    use_signal_stack();
    struct sigaction action {};
    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND);
    for (SignalLine& line : g_signal_lines) {
        compose(line);
        sigaction(line.signal, &action, nullptr);
    }
}

}  // namespace netconf
