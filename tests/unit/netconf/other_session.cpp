#include "tests/unit/netconf/other_session.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "services/netconf/shared_state.h"

namespace netconf::test {

OtherSession::OtherSession(const std::string& folder, const std::function<void()>& then) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0 || (pid_ = fork()) < 0) {
        throw std::runtime_error("no process for another session");
    }
    if (pid_ == 0) {
        const SessionNumber number(folder, getuid());
        then();
        const uint32_t id = number.id();
        if (write(ends[1], &id, sizeof id) != sizeof id) {
            _exit(1);
        }
        for (;;) {
            pause();  // returns after a signal that is handled
        }
    }
    close(ends[1]);
    const bool told = read(ends[0], &id_, sizeof id_) == sizeof id_;
    close(ends[0]);
    if (!told) {
        throw std::runtime_error("another session did not begin");
    }
}

bool OtherSession::alive() const {
    siginfo_t status{};
    return waitid(P_PID, static_cast<id_t>(pid_), &status, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           status.si_pid == 0;
}

void OtherSession::end() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }
}

}  // namespace netconf::test
