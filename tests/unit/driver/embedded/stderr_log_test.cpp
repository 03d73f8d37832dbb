// Standard error on pipes, terminals and sockets that nobody reads: no message may stop the loop.
#include "platform/driver/embedded/stderr_log.h"

#include <array>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/temporary_directory.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

constexpr size_t kTimeBytes = sizeof "2026-01-31 23:59:59.123 " - 1;

// While it exists, `fd` is the standard error of this process.
class StandardError {
 public:
    explicit StandardError(int fd) : before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
        dup2(fd, STDERR_FILENO);
    }
    ~StandardError() {
        dup2(before_, STDERR_FILENO);
        close(before_);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

 private:
    int before_;
};

// Two connected descriptors: what is written to `in` is read from `out`.
struct Ends {
    int out = -1;
    int in = -1;

    Ends() = default;
    ~Ends() {
        close(out);
        close(in);
    }
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    void make_pipe() {
        std::array<int, 2> fds{};
        ASSERT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
        out = fds[0];
        in = fds[1];
    }
    void make_sockets() {
        std::array<int, 2> fds{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
        out = fds[0];
        in = fds[1];
    }
    // Returns false where there are no terminals.
    bool make_terminal() {
        out = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (out < 0 || grantpt(out) != 0 || unlockpt(out) != 0) {
            return false;
        }
        in = open(ptsname(out), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios plain{};
        if (in < 0 || tcgetattr(in, &plain) != 0) {
            return false;
        }
        cfmakeraw(&plain);
        return tcsetattr(in, TCSANOW, &plain) == 0;
    }
};

// Everything that can be read now.
std::string read_all(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    std::string text;
    std::array<char, 4096> some{};
    for (ssize_t size; (size = read(fd, some.data(), some.size())) > 0;) {
        text.append(some.data(), static_cast<size_t>(size));
    }
    fcntl(fd, F_SETFL, flags);
    return text;
}

// The lines of a text, without their times.
Lines lines_of(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line.size() > kTimeBytes ? line.substr(kTimeBytes) : "no time: " + line);
    }
    return lines;
}

void write(StderrLog& log, const std::string& text) {
    log.write({.severity = 6, .facility = "LDA", .mnemonic = "INFO", .text = text});
}

// More than any pipe, socket or terminal of this test holds.
constexpr size_t kMany = 20000;

std::string numbered(size_t number) {
    return "line " + std::to_string(number) + " " + std::string(100, 'x');
}

std::string losses(size_t count) {
    return "%LOG-4-LOST: " + std::to_string(count) +
           (count == 1 ? " message was" : " messages were") +
           " lost while the system log could not take them.";
}

// Writes kMany lines that nobody reads, then reads what is there.
void expect_losses_to_be_counted(int out) {
    StderrLog log;
    for (size_t n = 0; n < kMany; ++n) {
        write(log, numbered(n));
    }
    std::string text = read_all(out);  // may end in the middle of a line
    write(log, "read again");
    text += read_all(out);
    const Lines lines = lines_of(text);
    ASSERT_GE(lines.size(), 3U);
    size_t next = 0;
    size_t reports = 0;
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        if (lines[i].starts_with("%LOG-4-LOST: ")) {
            const size_t count = std::strtoul(lines[i].c_str() + 13, nullptr, 10);
            EXPECT_EQ(lines[i], losses(count));
            next += count;
            ++reports;
        } else {
            ASSERT_EQ(lines[i], "%LDA-6-INFO: " + numbered(next));
            ++next;
        }
    }
    EXPECT_EQ(next, kMany) << "each line was written or counted";
    EXPECT_GE(reports, 1U);
    EXPECT_EQ(lines.back(), "%LDA-6-INFO: read again");
    write(log, "once");
    EXPECT_EQ(lines_of(read_all(out)), Lines{"%LDA-6-INFO: once"});
}

TEST(StderrLogThatNobodyReads, OnAPipeLosesLinesAndCountsThem) {
    Ends pipe;
    pipe.make_pipe();
    const StandardError redirected(pipe.in);
    expect_losses_to_be_counted(pipe.out);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0) << "others share it";
}

TEST(StderrLogThatNobodyReads, OnASocketLosesLinesAndCountsThem) {
    Ends sockets;
    sockets.make_sockets();
    const StandardError redirected(sockets.in);
    expect_losses_to_be_counted(sockets.out);
}

TEST(StderrLogThatNobodyReads, OnATerminalLosesLinesAndCountsThem) {
    Ends terminal;
    if (!terminal.make_terminal()) {
        GTEST_SKIP() << "this machine gives no pseudo-terminal";
    }
    const StandardError redirected(terminal.in);
    expect_losses_to_be_counted(terminal.out);
}

TEST(StderrLogThatNobodyReads, OneLostLineIsOneMessage) {
    Ends pipe;
    pipe.make_pipe();
    const StandardError redirected(pipe.in);
    StderrLog log;
    fcntl(pipe.in, F_SETFL, fcntl(pipe.in, F_GETFL) | O_NONBLOCK);
    const std::string page(4096, 'p');
    while (::write(pipe.in, page.data(), page.size()) > 0) {
    }
    write(log, "lost");
    read_all(pipe.out);
    write(log, "read again");
    EXPECT_EQ(lines_of(read_all(pipe.out)),
              (Lines{"%LOG-4-LOST: 1 message was lost while the system log could not take them.",
                     "%LDA-6-INFO: read again"}));
}

TEST(StderrLogInAFile, SharesItsPositionWithOthers) {
    const test::TemporaryDirectory directory;
    const int file = open(directory.file("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    {
        const StandardError redirected(file);
        StderrLog log;
        ASSERT_EQ(::write(STDERR_FILENO, "before\n", 7), 7);
        write(log, "between");
        ASSERT_EQ(::write(STDERR_FILENO, "after\n", 6), 6);
    }
    close(file);
    const Lines lines = directory.lines_of("log");
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "before");
    EXPECT_EQ(lines[1].substr(kTimeBytes), "%LDA-6-INFO: between");
    EXPECT_EQ(lines[2], "after");
}

}  // namespace
}  // namespace qv
