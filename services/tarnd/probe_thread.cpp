#include "services/tarnd/probe_thread.h"

#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace qv::tarnd {
namespace {

constexpr size_t kCommandSlots = 8192;
constexpr size_t kReportSlots = 8192;
constexpr size_t kFramesPerTurn = 64;
constexpr size_t kDatagramsPerTurn = 32;
constexpr int kPriority = 1;
constexpr rlim_t kLongestTurn_us = 500000;  // without a pause; then the kernel ends the process
constexpr std::chrono::milliseconds kRetryPause{100};
constexpr std::chrono::seconds kLongestWait{10};

timespec timespec_of(Duration time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {.tv_sec = seconds.count(), .tv_nsec = (time - seconds).count()};
}

void signal_fd(int fd) {
    const uint64_t one = 1;
    // It fails only when the descriptor is signalled already.
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof one);
}

void drain_fd(int fd) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = read(fd, &count, sizeof count);
}

std::string prefer(pthread_t thread) {
    const rlimit limit{.rlim_cur = kLongestTurn_us, .rlim_max = kLongestTurn_us};
    const sched_param parameters{.sched_priority = kPriority};
    if (setrlimit(RLIMIT_RTTIME, &limit) != 0) {
        return std::string("RLIMIT_RTTIME: ") + std::strerror(errno);
    }
    if (const int error = pthread_setschedparam(thread, SCHED_RR, &parameters)) {
        return std::string("SCHED_RR: ") + std::strerror(error);
    }
    if (mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) != 0) {
        return std::string("mlockall: ") + std::strerror(errno);
    }
    return "";
}

}  // namespace

ProbeThread::ProbeThread(const Prober::Identity& identity, const std::string& bridge,
                         CutJournal& cuts, CutJournal& guards)
    : links_(RTNLGRP_LINK),
      addresses_(RTNLGRP_NEIGH),
      guard_(control_, guards),
      journal_(cuts),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      reports_ready_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      commands_(kCommandSlots),
      reports_(kReportSlots),
      prober_(identity, *this),
      view_(bridge, prober_) {
    if (wake_.get() < 0 || reports_ready_.get() < 0) {
        throw std::runtime_error(std::string("eventfd: ") + std::strerror(errno));
    }
}

ProbeThread::~ProbeThread() {
    stop();
}

std::string ProbeThread::start() {
    thread_ = std::thread([this] { run(); });
    return prefer(thread_.native_handle());
}

void ProbeThread::stop() {
    if (thread_.joinable()) {
        ending_ = true;
        signal_fd(wake_.get());
        thread_.join();
    }
}

bool ProbeThread::command(const Command& command) {
    const bool taken = commands_.push(command);
    signal_fd(wake_.get());
    return taken;
}

void ProbeThread::clear_reports_fd() {
    drain_fd(reports_ready_.get());
}

Time ProbeThread::now() const {
    return Time(std::chrono::steady_clock::now());
}

bool ProbeThread::send(uint32_t ifx, const Frame& frame) {
    return packets_.send(ifx, frame);
}

// Blocking the bridge port is quick; taking the link down waits until no processor uses the port,
// and the frames of a loop behind the port would go on until then.
int ProbeThread::cut(uint32_t ifx, bool single) {
    if (!journal_.note(ifx)) {
        return ENOSPC;
    }
    if (single) {
        control_.set_state(ifx,
                           BR_STATE_DISABLED);  // refused while the kernel's spanning tree runs
    }
    const int error = control_.set_up(ifx, false);
    if (error != 0) {
        journal_.clear(ifx);
    }
    return error;
}

int ProbeThread::guard(uint32_t ifx, bool close) {
    return close ? guard_.close(ifx) : guard_.open(ifx);
}

bool ProbeThread::report(const Report& report) {
    const bool taken = reports_.push(report);
    signal_fd(reports_ready_.get());
    return taken;
}

void ProbeThread::run() {
    pthread_setname_np(pthread_self(), "tarnd_probe");
    busy_since_ = now();
    while (!ending_) {
        wait();
        take_frames();
        take_links();
        take_commands();
        take_addresses();
        prober_.run(now());
    }
}

void ProbeThread::wait() {
    const Time begin = now();
    if (begin - busy_since_ >= kBusy) {
        const timespec rest = timespec_of(kRest);
        nanosleep(&rest, nullptr);
        busy_since_ = now();
        return;
    }
    const bool read_addresses = begin >= addresses_from_;
    Time until = std::min(prober_.next(), begin + kLongestWait);
    if (!read_addresses) {
        until = std::min(until, addresses_from_);
    }
    if (dump_wanted_) {
        until = std::min(until, begin + kRetryPause);
    }
    std::array<pollfd, 4> watched{{{packets_.fd(), POLLIN, 0},
                                   {links_.fd(), POLLIN, 0},
                                   {wake_.get(), POLLIN, 0},
                                   {read_addresses ? addresses_.fd() : -1, POLLIN, 0}}};
    const timespec timeout = timespec_of(std::max(until - begin, Duration::zero()));
    const int ready = ppoll(watched.data(), watched.size(), &timeout, nullptr);
    const Time end = now();
    // The kernel counts a turn from the last time that the thread slept.
    if (ready == 0 || end - begin > kRest) {
        busy_since_ = end;
    }
}

void ProbeThread::take_commands() {
    drain_fd(wake_.get());
    while (const auto command = commands_.pop()) {
        switch (command->kind) {
            case Command::Kind::kSettings:
                prober_.configure(command->settings, now());
                break;
            case Command::Kind::kKey:
                prober_.set_key(command->key);
                break;
            case Command::Kind::kPort:
                prober_.configure_port(command->ifx, command->watched, command->shuts, now(),
                                       command->options);
                break;
            case Command::Kind::kAsk:
                prober_.ask(command->ifx, now());
                break;
        }
    }
}

void ProbeThread::take_frames() {
    packets_.receive(kFramesPerTurn, [this](uint32_t ifx, std::span<const uint8_t> frame) {
        prober_.received(ifx, frame, now());
    });
}

void ProbeThread::read_links_again() {
    dump_from_ = now() + kRetryPause;
    dump_interrupted_ = false;
    dumping_ = links_.request_links(++dump_sequence_);
    dump_wanted_ = !dumping_;
    if (dumping_) {
        view_.begin_dump();
    }
}

void ProbeThread::end_dump(bool complete) {
    dumping_ = false;
    if (complete && !dump_interrupted_) {
        view_.end_dump(now());
    } else {
        dump_wanted_ = true;
    }
}

void ProbeThread::take_links() {
    if (dump_wanted_ && !dumping_ && now() >= dump_from_) {
        read_links_again();
    }
    const bool complete = links_.receive(kDatagramsPerTurn, [this](nlmsghdr* message) {
        dump_interrupted_ |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        const bool end = message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR;
        if (!end) {
            view_.take(message, now());
        } else if (dumping_ && message->nlmsg_seq == dump_sequence_) {
            end_dump(message->nlmsg_type == NLMSG_DONE);
        }
    });
    if (!complete) {
        dumping_ = false;  // its end may be among the lost messages
        dump_wanted_ = true;
    }
}

void ProbeThread::take_addresses() {
    const Time begin = now();
    if (begin < addresses_from_) {
        return;
    }
    bool any = false;
    const bool complete = addresses_.receive(kDatagramsPerTurn, [&](nlmsghdr* message) {
        const auto learned = parse_learned(message);
        if (learned && learned->bridge == view_.bridge()) {
            any |= prober_.learned(learned->address, learned->ifx, begin);
        }
    });
    if (!complete) {
        prober_.overrun(begin);
    }
    if (any || !complete) {
        addresses_from_ = begin + kAddressPause;
    }
}

}  // namespace qv::tarnd
