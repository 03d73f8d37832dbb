#include "platform/driver/linux/termination.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include <sys/signalfd.h>
#include <unistd.h>

namespace qv {
namespace {

sigset_t ending_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

}  // namespace

Termination::Termination(EventLoop& loop, EventLoop::Task last_task)
    : last_task_(std::move(last_task)), fd_(-1) {
    const sigset_t signals = ending_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    fd_ = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) {
        throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    }
    watch_ = loop.watch(fd_, true, false, [this](EventLoop::Ready) { on_signal(); });
    if (!watch_) {
        close(fd_);
        throw std::runtime_error("the event loop cannot watch for signals");
    }
}

Termination::~Termination() {
    watch_.reset();
    close(fd_);
}

void Termination::on_signal() {
    signalfd_siginfo info;
    if (read(fd_, &info, sizeof info) != sizeof info) {
        return;
    }
    last_task_();
    const int signal = static_cast<int>(info.ssi_signo);
    std::signal(signal, SIG_DFL);
    const sigset_t signals = ending_signals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    raise(signal);
}

}  // namespace qv
