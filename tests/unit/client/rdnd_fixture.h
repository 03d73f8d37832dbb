// Agents that ask for the master role, on a manual clock, and processes in their way.
#pragma once

#include <csignal>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/client/name_lock.h"
#include "platform/client/thread_master.h"
#include "qv/rdnd.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_platform.h"

namespace qv::rdnd_test {

using Lines = std::vector<std::string>;

inline int g_master_calls = 0;
inline int g_switch_calls = 0;

inline int take_master() {
    ++g_master_calls;
    return 0;
}

inline int take_switch() {
    ++g_switch_calls;
    return 0;
}

// A process that runs `setup` and then waits for its end.
class Process {
 public:
    explicit Process(const std::function<bool()>& setup) {
        int ready[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test may end with its process
            const char done = setup() ? 'y' : 'n';
            static_cast<void>(!write(ready[1], &done, 1));
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        char answer = 0;
        set_up_ = read(ready[0], &answer, 1) == 1 && answer == 'y';
        close(ready[0]);
    }
    ~Process() { end(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool set_up() const { return set_up_; }
    pid_t pid() const { return pid_; }
    void end() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(std::exchange(pid_, -1), nullptr, 0);
        }
    }

 private:
    pid_t pid_ = -1;
    bool set_up_ = false;
};

// Plays another process that holds the address of a lock.
class Holder {
 public:
    explicit Holder(const std::string& name) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        holds_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                 listen(fd_, SOMAXCONN) == 0;
    }
    ~Holder() { end(); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    bool holds() const { return holds_; }
    void end() { close(std::exchange(fd_, -1)); }

 private:
    int fd_;
    bool holds_ = false;
};

// A process registers once, so each of these tests runs in its own process.
struct RdndTest : testing::Test {
    test::TestPlatform platform;
    test::TemporaryDirectory directory;
    qv_thread_master* master = qv_thread_master_create();
    EventLoop& loop = loop_of(master);
    const uint32_t dbs[3] = {4, 22, 3};

    RdndTest() {
        platform.settings.cli_socket = directory.file("cli.sock");
        g_lock_folder = directory.file("run");
    }
    ~RdndTest() override { qv_thread_master_finish(master); }

    void use_bridge() {
        platform.settings.switch_kind = PlatformConfig::Switch::kLinux;
        platform.settings.bridge = "br" + std::to_string(getpid());
    }
    std::string cli_lock() const {
        return "lda: command-line socket " + platform.settings.cli_socket;
    }
    std::string bridge_lock() const { return "lda: bridge " + platform.settings.bridge; }
    std::string cli_lock_file() const { return platform.settings.cli_socket + ".lock"; }
    std::string bridge_lock_file() const {
        struct stat own_namespace {};
        EXPECT_EQ(stat("/proc/self/ns/net", &own_namespace), 0);
        return directory.file("run/lda-" + std::to_string(own_namespace.st_ino) + "-" +
                              platform.settings.bridge + ".lock");
    }

    // Of this process alone: tests run side by side.
    static std::string test_lock() { return "lda: test " + std::to_string(getpid()); }
    std::string test_file() const { return directory.file("lock"); }

    rdnd_reg reg() {
        return {.master = master,
                .module = "lda",
                .mom = nullptr,
                .master_cb = take_master,
                .switch_cb = take_switch,
                .reserved = {0, 0},
                .flags = 0,
                .dbs = dbs,
                .db_num = 3};
    }
    void run_for(Duration time) { test::run_for(loop, platform.manual_clock, time); }
};

}  // namespace qv::rdnd_test
