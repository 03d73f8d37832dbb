#include "tests/unit/ldash/scripted_switch.h"

#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

int ldash_main(int argc, char** argv);

namespace ldash::test {
namespace {

constexpr timespec kLimit = {.tv_sec = 20, .tv_nsec = 0};

// Returns false, and fails the test, when nothing can be read in time.
bool readable(int fd, const char* wanted) {
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    int ready = 0;
    while ((ready = ::ppoll(&waiting, 1, &kLimit, nullptr)) < 0 && errno == EINTR) {
    }
    if (ready <= 0) {
        ADD_FAILURE() << "waited in vain for " << wanted;
    }
    return ready > 0;
}

// The bytes that can be read now, waiting for the first; empty at the end.
std::string read_some(int fd, const char* wanted) {
    char bytes[4096];
    const ssize_t size = readable(fd, wanted) ? ::read(fd, bytes, sizeof bytes) : 0;
    return {bytes, size > 0 ? static_cast<size_t>(size) : 0};
}

std::string read_all(int fd) {
    std::string text;
    for (std::string more; !(more = read_some(fd, "the end of the output")).empty();) {
        text += more;
    }
    return text;
}

[[noreturn]] void run_program(std::vector<std::string> arguments) {
    std::string name = "ldash";
    std::vector<char*> argv{name.data()};
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::exit(ldash_main(static_cast<int>(argv.size()) - 1, argv.data()));
}

// -1 for a program that must be killed.
int exit_status(pid_t child) {
    const int watch = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    const bool ended = readable(watch, "the end of the program");
    ::close(watch);
    if (!ended) {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void end(pid_t child) {
    if (child > 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

}  // namespace

ScriptedSwitch::ScriptedSwitch() : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    char name[] = "/tmp/lda-shell-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    folder_ = name;
    path_ = folder_ + "/cli.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 1), 0);
}

ScriptedSwitch::~ScriptedSwitch() {
    hang_up();
    ::close(listener_);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void ScriptedSwitch::accept() {
    if (readable(listener_, "a session")) {
        session_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    }
    ASSERT_GE(session_, 0);
}

void ScriptedSwitch::send_bytes(const std::string& bytes) const {
    EXPECT_EQ(::write(session_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string ScriptedSwitch::request() {
    size_t end = 0;
    while ((end = input_.find('\n')) == std::string::npos) {
        const std::string more = read_some(session_, "a request");
        if (more.empty()) {
            return "no request";
        }
        input_ += more;
    }
    std::string line = input_.substr(0, end);
    input_.erase(0, end + 1);
    return line;
}

std::vector<std::string> ScriptedSwitch::requests() {
    std::vector<std::string> all;
    for (std::string line; (line = request()) != "no request";) {
        all.push_back(std::move(line));
    }
    return all;
}

void ScriptedSwitch::hang_up() {
    if (session_ >= 0) {
        ::close(std::exchange(session_, -1));
    }
}

Program::Program(std::vector<std::string> arguments, const std::string& input) {
    int in[2];
    int out[2];
    int err[2];
    EXPECT_EQ(::pipe(in) + ::pipe(out) + ::pipe(err), 0);
    std::fflush(nullptr);
    child_ = ::fork();
    if (child_ == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        for (const int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) {
            ::close(fd);
        }
        run_program(std::move(arguments));
    }
    EXPECT_EQ(::write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    for (const int fd : {in[0], in[1], out[1], err[1]}) {
        ::close(fd);
    }
    out_ = out[0];
    err_ = err[0];
}

Program::~Program() {
    end(child_);
    ::close(out_);
    ::close(err_);
}

Ended Program::wait() {
    const int status = exit_status(std::exchange(child_, -1));
    std::string out = read_all(out_);
    return {.status = status, .out = std::move(out), .err = read_all(err_)};
}

Terminal::Terminal(const std::string& socket, bool hangup_ignored) {
    std::fflush(nullptr);
    child_ = ::forkpty(&screen_, nullptr, nullptr, nullptr);
    if (child_ == 0) {
        ::setenv("TERM", "dumb", 1);
        // Buffered by lines, as on a terminal: the test's own standard output may be set up for a
        // pipe.
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
        if (hangup_ignored) {
            std::signal(SIGHUP, SIG_IGN);
        }
        run_program({"-s", socket});
    }
    EXPECT_GT(child_, 0);
}

Terminal::~Terminal() {
    close();
    end(child_);
}

void Terminal::resize(unsigned short rows, unsigned short columns) const {
    const winsize size{.ws_row = rows, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
    EXPECT_EQ(::ioctl(screen_, TIOCSWINSZ, &size), 0);
}

void Terminal::type(const std::string& keys) const {
    EXPECT_EQ(::write(screen_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

// A terminal whose program has ended reads as an error. One that never stops writing has failed.
bool Terminal::read_more() {
    constexpr size_t kMostShown = 1'000'000;
    if (shown_.size() > kMostShown) {
        ADD_FAILURE() << "the program never stops writing";
        close();
        shown_.clear();
    }
    if (screen_ < 0) {
        return false;
    }
    const std::string more = read_some(screen_, "the terminal");
    shown_ += more;
    return !more.empty();
}

std::string Terminal::until(const std::string& text) {
    size_t place = 0;
    while ((place = shown_.find(text)) == std::string::npos && read_more()) {
    }
    if (place == std::string::npos) {
        ADD_FAILURE() << "\"" << text << "\" is not in what is shown:\n" << shown_;
        return std::exchange(shown_, "");
    }
    std::string part = shown_.substr(0, place + text.size());
    shown_.erase(0, place + text.size());
    return part;
}

void Terminal::until_keys_are_taken() const {
    termios settings{};
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kLimit.tv_sec);
    do {
        ::sched_yield();
        ASSERT_EQ(::tcgetattr(screen_, &settings), 0);
        ASSERT_LT(std::chrono::steady_clock::now(), limit) << "waited in vain for the editor";
    } while ((settings.c_lflag & ICANON) != 0);
}

void Terminal::close() {
    if (screen_ >= 0) {
        ::close(std::exchange(screen_, -1));
    }
}

int Terminal::wait(std::string* rest) {
    while (screen_ >= 0 && read_more()) {
    }
    if (rest != nullptr) {
        *rest = shown_;
    }
    return exit_status(std::exchange(child_, -1));
}

}  // namespace ldash::test
