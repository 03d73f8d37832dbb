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

std::string g_who;
bool g_to_stderr = false;

// Everything the signal handler needs, made beforehand: it may neither allocate nor lock.
struct LastWords {
    int signal;
    int priority;
    int status;  // of the process
    const char* text;
    std::array<char, kLineBytes> line;
    size_t length;
    size_t tag;  // bytes at the start that only the system log wants
};

std::array<LastWords, 9> g_last_words{{
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
    for (const LastWords& words : g_last_words) {
        if (words.signal != number) {
            continue;
        }
        if (g_system_log >= 0) {
            send(g_system_log, words.line.data(), words.length - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (g_to_stderr) {
            const ssize_t written =
                write(STDERR_FILENO, words.line.data() + words.tag, words.length - words.tag);
            static_cast<void>(written);  // nobody is left to be told
        }
        _exit(words.status);
    }
}

// A system log that is not there is no reason to refuse service.
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

void compose(LastWords& words) {
    const int tag = snprintf(words.line.data(), kLineBytes, "<%d>", LOG_DAEMON | words.priority);
    words.tag = static_cast<size_t>(tag);
    const int rest = snprintf(words.line.data() + tag, kLineBytes - words.tag,
                              "lda-netconf[%d]: %.200s: %s\n", getpid(), g_who.c_str(), words.text);
    words.length = words.tag + static_cast<size_t>(rest);
}

}  // namespace

void open_log(bool also_to_stderr) {
    g_to_stderr = also_to_stderr;
    openlog("lda-netconf", LOG_PID | (also_to_stderr ? LOG_PERROR : 0), LOG_DAEMON);
}

void log_as(const std::string& who) {
    g_who = who;
}

void log_line(int priority, const char* format, ...) {
    std::array<char, kLineBytes> text;
    va_list values;
    va_start(values, format);
    vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    // Some of it comes from clients: nobody writes lines of their own into the log.
    for (char* at = text.data(); *at != '\0'; at++) {
        if (*at < ' ' || *at > '~') {
            *at = *at == '\n' ? ' ' : '?';
        }
    }
    if (g_who.empty()) {
        syslog(priority, "%s", text.data());
    } else {
        syslog(priority, "%s: %s", g_who.c_str(), text.data());
    }
}

void use_signal_stack() {
    alignas(16) static thread_local std::array<char, 16384> stack;
    const stack_t alternative{.ss_sp = stack.data(), .ss_flags = 0, .ss_size = stack.size()};
    sigaltstack(&alternative, nullptr);
}

void arm_last_words() {
    if (g_system_log < 0) {
        g_system_log = connect_system_log();
    }
    use_signal_stack();
    struct sigaction action {};
    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND);
    for (LastWords& words : g_last_words) {
        compose(words);
        sigaction(words.signal, &action, nullptr);
    }
}

}  // namespace netconf
