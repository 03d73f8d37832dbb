// Library calls of the server that the linker redirects to these tests (--wrap in
// tests/CMakeLists.txt). Each one works as usual until a test changes it.
#pragma once

#include <libyang/libyang.h>

#include <libnetconf2/netconf.h>
#include <poll.h>

#include <chrono>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace netconf::test {

// One line that went to syslog(3).
struct LogLine {
    int priority;
    std::string text;
    bool operator==(const LogLine&) const = default;
};
void PrintTo(const LogLine& line, std::ostream* out);

// Restores every call, drops the records, and ignores SIGPIPE as the program does.
// Each fixture that uses this header calls it first.
void reset_interception();

// The server's log so far, oldest first. Any thread.
std::vector<LogLine> logged();
std::vector<std::string> logged_texts();
// The arguments of the last openlog(3).
struct OpenLog {
    std::string identity;
    int options;
    int facility;
};
OpenLog log_opening();
// A Unix datagram socket that takes the place of /dev/log; empty: connecting fails.
void put_system_log_at(const std::string& path);

// Stops std::chrono::steady_clock; from now on it moves by advance_clock() and by sleeping.
void freeze_clock();
void advance_clock(std::chrono::nanoseconds step);
std::chrono::milliseconds clock_advance();  // since freeze_clock()
// Seconds since 1970 that time(2) returns. std::chrono::system_clock begins there and moves by
// advance_clock().
void set_time_of_day(long seconds);
// Called before time(2) is answered.
void on_time(std::function<void()> hook);

// Called in place of the server's poll(2) and nanosleep(2); null for the usual ones.
// A sleep under a frozen clock never waits.
void on_poll(std::function<int(pollfd* watched, nfds_t count, int timeout_ms)> hook);
void on_sleep(std::function<void()> hook);

// Whether the last thread to read standard input has a separate stack for signal handlers.
bool reader_has_signal_stack();
// Makes the next `count` calls of read(2) on standard input, or of send(2), fail with EINTR first.
void interrupt_reads(int count);
void interrupt_sends(int count);
// Makes send(2) take at most this many bytes at once; 0 for no limit.
void limit_sends(size_t bytes);
// Called before syscall(2) with its number; a result other than 0 becomes its errno.
void on_system_call(std::function<int(long number)> hook);

// Called before fork(2), which fails when the result is false.
void on_fork(std::function<bool()> hook);

// Time limits that the server has set on connections, in microseconds.
struct ConnectionLimits {
    long connect_us;
    long command_us;
};
ConnectionLimits connection_limits();
// Makes connections give up after this time instead.
void shorten_connection_limits(std::chrono::milliseconds limit);

// The limits given to alarm(2), in seconds and oldest first; no alarm is set.
std::vector<unsigned> alarms();
// Called when the server sets an alarm, which it does before it may block.
void on_alarm(std::function<void()> hook);
// The time that a client has for its hello, in seconds.
int hello_limit_s();
// Called before a session is accepted, with the name of its user; a result becomes that of
// nc_accept_inout().
void on_accept(std::function<std::optional<NC_MSG_TYPE>(const std::string& user)> hook);

// Makes sending a notification fail from now on.
void fail_notifications();

// Makes the start of libnetconf2 fail from now on.
void fail_server_start();

// Makes setrlimit(2) record limits without setting them.
void note_resource_limits();
struct ResourceLimit {
    int resource;
    unsigned long soft;
    unsigned long hard;
    bool operator==(const ResourceLimit&) const = default;
};
std::vector<ResourceLimit> resource_limits();
// Makes getpwuid(3) find no user from now on.
void forget_users();

// The <rpc-error> that was last made into a reply, as XML.
std::string last_error_xml();

}  // namespace netconf::test
