#include "tests/unit/netconf/intercepted.h"

#include <hiredis/hiredis.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <ostream>
#include <utility>

namespace netconf::test {
namespace {

using std::chrono::nanoseconds;

struct State {
    std::vector<LogLine> lines;
    OpenLog opening{};
    std::string system_log;
    std::function<int(pollfd*, nfds_t, int)> poll_hook;
    std::function<void()> sleep_hook;
    std::function<int(long)> call_hook;
    std::function<bool()> fork_hook;
    ConnectionLimits limits{};
    timeval shortened{};
    std::string error_xml;
    std::function<void()> time_hook;
    std::vector<unsigned> alarms;
    std::function<void()> alarm_hook;
    int hello_limit_s = 0;
    bool notifications_fail = false;
    bool server_fails = false;
    bool users_forgotten = false;
    bool limits_noted = false;
    std::vector<ResourceLimit> resource_limits;
    std::function<std::optional<NC_MSG_TYPE>(const std::string&)> accept_hook;
};

std::mutex g_mutex;  // guards the lines; the rest is the test's own thread's
State g_state;
std::atomic<bool> g_frozen{false};
std::atomic<int64_t> g_start_ns{0};
std::atomic<int64_t> g_advance_ns{0};
std::atomic<long> g_time_s{-1};
std::atomic<int> g_interrupted_reads{0};
std::atomic<int> g_interrupted_sends{0};
std::atomic<size_t> g_send_limit{0};
std::atomic<bool> g_reader_has_stack{false};

bool take_one(std::atomic<int>& left) {
    int value = left.load();
    while (value > 0 && !left.compare_exchange_weak(value, value - 1)) {
    }
    return value > 0;
}

long microseconds(const timeval& limit) {
    return limit.tv_sec * 1'000'000 + limit.tv_usec;
}

bool shortened() {
    return microseconds(g_state.shortened) != 0;
}

}  // namespace

void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.priority << " " << line.text;
}

void reset_interception() {
    signal(SIGPIPE, SIG_IGN);  // as main() does
    const std::lock_guard lock(g_mutex);
    g_state = State();
    g_frozen = false;
    g_advance_ns = 0;
    g_time_s = -1;
    g_interrupted_reads = 0;
    g_interrupted_sends = 0;
    g_send_limit = 0;
    g_reader_has_stack = false;
}

std::vector<LogLine> logged() {
    const std::lock_guard lock(g_mutex);
    return g_state.lines;
}

std::vector<std::string> logged_texts() {
    std::vector<std::string> texts;
    for (const LogLine& line : logged()) {
        texts.push_back(line.text);
    }
    return texts;
}

OpenLog log_opening() {
    return g_state.opening;
}

void put_system_log_at(const std::string& path) {
    g_state.system_log = path;
}

void freeze_clock() {
    g_start_ns = nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    g_advance_ns = 0;
    g_frozen = true;
}

void advance_clock(nanoseconds step) {
    g_advance_ns += step.count();
}

std::chrono::milliseconds clock_advance() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(nanoseconds(g_advance_ns));
}

void set_time_of_day(long seconds) {
    g_time_s = seconds;
}

void on_time(std::function<void()> hook) {
    g_state.time_hook = std::move(hook);
}

void on_poll(std::function<int(pollfd*, nfds_t, int)> hook) {
    g_state.poll_hook = std::move(hook);
}

void on_sleep(std::function<void()> hook) {
    g_state.sleep_hook = std::move(hook);
}

bool reader_has_signal_stack() {
    return g_reader_has_stack;
}

void interrupt_reads(int count) {
    g_interrupted_reads = count;
}

void interrupt_sends(int count) {
    g_interrupted_sends = count;
}

void limit_sends(size_t bytes) {
    g_send_limit = bytes;
}

void on_system_call(std::function<int(long)> hook) {
    g_state.call_hook = std::move(hook);
}

void on_fork(std::function<bool()> hook) {
    g_state.fork_hook = std::move(hook);
}

ConnectionLimits connection_limits() {
    return g_state.limits;
}

void shorten_connection_limits(std::chrono::milliseconds limit) {
    g_state.shortened = {.tv_sec = limit.count() / 1000, .tv_usec = limit.count() % 1000 * 1000};
}

std::vector<unsigned> alarms() {
    return g_state.alarms;
}

void on_alarm(std::function<void()> hook) {
    g_state.alarm_hook = std::move(hook);
}

int hello_limit_s() {
    return g_state.hello_limit_s;
}

void on_accept(std::function<std::optional<NC_MSG_TYPE>(const std::string&)> hook) {
    g_state.accept_hook = std::move(hook);
}

void fail_notifications() {
    g_state.notifications_fail = true;
}

void fail_server_start() {
    g_state.server_fails = true;
}

void note_resource_limits() {
    g_state.limits_noted = true;
}

std::vector<ResourceLimit> resource_limits() {
    return g_state.resource_limits;
}

void forget_users() {
    g_state.users_forgotten = true;
}

std::string last_error_xml() {
    return g_state.error_xml;
}

}  // namespace netconf::test

using namespace netconf::test;

extern "C" {

struct nc_server_reply;
struct nc_session;
struct nc_server_notif;

int __real_poll(pollfd* watched, nfds_t count, int timeout_ms);
int __real_nanosleep(const timespec* wanted, timespec* left);
time_t __real_time(time_t* now);
ssize_t __real_read(int fd, void* bytes, size_t size);
ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
int __real_connect(int fd, const sockaddr* address, socklen_t size);
long __real_syscall(long number, ...);
pid_t __real_fork();
redisContext* __real_redisConnectUnixWithTimeout(const char* path, timeval limit);
int __real_redisSetTimeout(redisContext* context, timeval limit);
nc_server_reply* __real_nc_server_reply_err(lyd_node* error);
NC_MSG_TYPE __real_nc_accept_inout(int input, int output, const char* user, nc_session** session);
NC_MSG_TYPE __real_nc_server_notif_send(nc_session* session, nc_server_notif* notice, int limit_ms);
int __real_nc_server_init(ly_ctx* context);
int __real_setrlimit64(__rlimit_resource_t resource, const rlimit* limit);
passwd* __real_getpwuid(uid_t user);
// now() of std::chrono::steady_clock and std::chrono::system_clock
std::chrono::steady_clock::time_point __real__ZNSt6chrono3_V212steady_clock3nowEv();
std::chrono::system_clock::time_point __real__ZNSt6chrono3_V212system_clock3nowEv();

std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    if (!g_frozen) {
        return __real__ZNSt6chrono3_V212steady_clock3nowEv();
    }
    return std::chrono::steady_clock::time_point(nanoseconds(g_start_ns + g_advance_ns));
}

std::chrono::system_clock::time_point __wrap__ZNSt6chrono3_V212system_clock3nowEv() {
    if (g_time_s < 0) {
        return __real__ZNSt6chrono3_V212system_clock3nowEv();
    }
    return std::chrono::system_clock::from_time_t(g_time_s) + nanoseconds(g_advance_ns);
}

time_t __wrap_time(time_t* now) {
    if (g_state.time_hook) {
        g_state.time_hook();
    }
    if (g_time_s < 0) {
        return __real_time(now);
    }
    if (now != nullptr) {
        *now = g_time_s;
    }
    return g_time_s;
}

int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms) {
    return g_state.poll_hook ? g_state.poll_hook(watched, count, timeout_ms)
                             : __real_poll(watched, count, timeout_ms);
}

int __wrap_nanosleep(const timespec* wanted, timespec* left) {
    if (!g_frozen) {
        return __real_nanosleep(wanted, left);
    }
    g_advance_ns += wanted->tv_sec * 1'000'000'000 + wanted->tv_nsec;
    if (g_state.sleep_hook) {
        g_state.sleep_hook();
    }
    return 0;
}

ssize_t __wrap_read(int fd, void* bytes, size_t size) {
    if (fd == STDIN_FILENO) {
        stack_t stack{};
        g_reader_has_stack =
            sigaltstack(nullptr, &stack) == 0 && (stack.ss_flags & SS_DISABLE) == 0;
    }
    if (fd == STDIN_FILENO && take_one(g_interrupted_reads)) {
        errno = EINTR;
        return -1;
    }
    return __real_read(fd, bytes, size);
}

ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    if (take_one(g_interrupted_sends)) {
        errno = EINTR;
        return -1;
    }
    const size_t limit = g_send_limit;
    return __real_send(fd, bytes, limit == 0 ? size : std::min(size, limit), flags);
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
    sockaddr_un path{};
    memcpy(&path, address, std::min(size_t{size}, sizeof path));
    if (path.sun_family != AF_UNIX || strcmp(path.sun_path, "/dev/log") != 0) {
        return __real_connect(fd, address, size);
    }
    if (g_state.system_log.empty()) {
        errno = ENOENT;
        return -1;
    }
    snprintf(path.sun_path, sizeof path.sun_path, "%s", g_state.system_log.c_str());
    return __real_connect(fd, reinterpret_cast<const sockaddr*>(&path), sizeof path);
}

pid_t __wrap_fork() {
    if (g_state.fork_hook && !g_state.fork_hook()) {
        errno = EAGAIN;
        return -1;
    }
    return __real_fork();
}

long __wrap_syscall(long number, long first, long second, long third, long fourth) {
    const int error = g_state.call_hook ? g_state.call_hook(number) : 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return __real_syscall(number, first, second, third, fourth);
}

void __wrap_syslog(int priority, const char* format, ...) {
    std::array<char, 2048> text;
    va_list values;
    va_start(values, format);
    vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    const std::lock_guard lock(g_mutex);
    g_state.lines.push_back({priority, text.data()});
}

void __wrap_openlog(const char* identity, int options, int facility) {
    g_state.opening = {identity, options, facility};
}

redisContext* __wrap_redisConnectUnixWithTimeout(const char* path, timeval limit) {
    g_state.limits.connect_us = microseconds(limit);
    return __real_redisConnectUnixWithTimeout(path, limit);
}

int __wrap_redisSetTimeout(redisContext* context, timeval limit) {
    g_state.limits.command_us = microseconds(limit);
    return __real_redisSetTimeout(context, shortened() ? g_state.shortened : limit);
}

nc_server_reply* __wrap_nc_server_reply_err(lyd_node* error) {
    char* printed = nullptr;
    lyd_print_mem(&printed, error, LYD_XML, LYD_PRINT_SHRINK);
    g_state.error_xml = printed == nullptr ? "" : printed;
    free(printed);
    return __real_nc_server_reply_err(error);
}

unsigned __wrap_alarm(unsigned seconds) {
    g_state.alarms.push_back(seconds);
    if (g_state.alarm_hook && seconds != 0) {
        g_state.alarm_hook();
    }
    return 0;
}

void __wrap_nc_server_set_hello_timeout(uint16_t seconds) {
    g_state.hello_limit_s = seconds;
}

NC_MSG_TYPE __wrap_nc_accept_inout(int input, int output, const char* user, nc_session** session) {
    const auto result = g_state.accept_hook ? g_state.accept_hook(user) : std::nullopt;
    return result ? *result : __real_nc_accept_inout(input, output, user, session);
}

NC_MSG_TYPE __wrap_nc_server_notif_send(nc_session* session, nc_server_notif* notice,
                                        int limit_ms) {
    return g_state.notifications_fail ? NC_MSG_ERROR
                                      : __real_nc_server_notif_send(session, notice, limit_ms);
}

int __wrap_nc_server_init(ly_ctx* context) {
    return g_state.server_fails ? -1 : __real_nc_server_init(context);
}

int __wrap_setrlimit64(__rlimit_resource_t resource, const rlimit* limit) {
    if (!g_state.limits_noted) {
        return __real_setrlimit64(resource, limit);
    }
    g_state.resource_limits.push_back(
        {static_cast<int>(resource), limit->rlim_cur, limit->rlim_max});
    return 0;
}

passwd* __wrap_getpwuid(uid_t user) {
    return g_state.users_forgotten ? nullptr : __real_getpwuid(user);
}

}  // extern "C"
