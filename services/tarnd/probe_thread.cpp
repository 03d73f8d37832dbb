#include "services/tarnd/probe_thread.h"

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
#include <optional>

namespace qv::tarnd {
namespace {

constexpr size_t kCommandSlots = 1024;
constexpr size_t kReportSlots = 1024;
constexpr size_t kFramesPerTurn = 64;
constexpr size_t kDatagramsPerTurn = 32;
constexpr int kPriority = 1;
constexpr rlim_t kLongestTurn_us = 500000;  // without a pause; then the kernel ends the process
constexpr std::chrono::milliseconds kRetryPause{100};

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

// The processors that this process may use.
std::vector<int> processors() {
    cpu_set_t allowed;
    std::vector<int> result;
    if (sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
        for (int number = 0; number < CPU_SETSIZE; ++number) {
            if (CPU_ISSET(number, &allowed)) {
                result.push_back(number);
            }
        }
    }
    return result;
}

void pin_to_processor(int processor, pthread_t thread) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(processor, &only);
    // Refused when the processor has gone meanwhile: then the thread runs where it may.
    pthread_setaffinity_np(thread, sizeof only, &only);
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
      cut_(control_, cuts),
      guard_(control_, guards),
      guards_(guards),
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
    for (const uint32_t ifx : guards_.noted()) {
        prober_.take_closed(ifx, now());
    }
    std::vector<int> where = processors();
    where.resize(std::clamp<size_t>(where.size(), 1, kMostListeners), -1);
    std::string refusal;
    for (const int processor : where) {
        listeners_.emplace_back([this, first = listeners_.empty()] { run(first); });
        const pthread_t thread = listeners_.back().native_handle();
        if (processor >= 0) {
            pin_to_processor(processor, thread);
        }
        if (refusal.empty()) {
            refusal = prefer(thread);
        }
    }
    return refusal;
}

void ProbeThread::stop() {
    ending_ = true;
    signal_fd(wake_.get());
    for (std::thread& listener : listeners_) {
        listener.join();
    }
    listeners_.clear();
}

bool ProbeThread::command(const Command& command) {
    const bool taken = commands_.push(command);
    signal_fd(wake_.get());
    return taken;
}

std::optional<Report> ProbeThread::next_report() {
    return reports_.pop();
}

void ProbeThread::clear_reports_fd() {
    drain_fd(reports_ready_.get());
}

Time ProbeThread::now() const {
    return Time(std::chrono::steady_clock::now());
}

bool ProbeThread::send(uint32_t ifx, uint16_t vid, const Frame& frame) {
    return packets_.send(ifx, vid, frame);
}

int ProbeThread::cut(uint32_t ifx, bool single) {
    return cut_.cut(ifx, single);
}

int ProbeThread::guard(uint32_t ifx, bool close) {
    return close ? guard_.close(ifx) : guard_.open(ifx);
}

bool ProbeThread::report(const Report& report) {
    const bool taken = reports_.push(report);
    signal_fd(reports_ready_.get());
    return taken;
}

void ProbeThread::run(bool keeps_time) {
    pthread_setname_np(pthread_self(), "tarnd_probe");
    Time busy_since = now();
    Wait plan{.until = busy_since};
    while (!ending_) {
        const Ready ready = wait(plan, busy_since);
        plan = take_turn(keeps_time, ready);
    }
    signal_fd(wake_.get());  // this one may have taken the signal from the others
}

ProbeThread::Wait ProbeThread::take_turn(bool keeps_time, const Ready& ready) {
    const MutexLock turn(turn_);
    if (ready.frames) {
        take_frames();
    }
    if (ready.links || dump_wanted_) {
        take_links();
    }
    if (ready.commands) {
        take_commands();
    }
    if (ready.addresses) {
        take_addresses();
    }
    const Time begin = now();
    prober_.run(begin);
    Wait plan{.until = timekeeping_.wake_up(keeps_time, begin, prober_.next()),
              .addresses = begin >= addresses_from_};
    if (!plan.addresses) {
        plan.until = std::min(plan.until, addresses_from_);
    }
    if (dump_wanted_) {
        plan.until = std::min(plan.until, begin + kRetryPause);
    }
    return plan;
}

ProbeThread::Ready ProbeThread::wait(const Wait& plan, Time& busy_since) const {
    const Time begin = now();
    if (begin - busy_since >= kBusy) {
        const timespec rest = timespec_of(kRest);
        nanosleep(&rest, nullptr);
        busy_since = now();
        return {};
    }
    std::array<pollfd, 4> watched{{{packets_.fd(), POLLIN, 0},
                                   {links_.fd(), POLLIN, 0},
                                   {wake_.get(), POLLIN, 0},
                                   {plan.addresses ? addresses_.fd() : -1, POLLIN, 0}}};
    const timespec timeout = timespec_of(std::max(plan.until - begin, Duration::zero()));
    const int ready = ppoll(watched.data(), watched.size(), &timeout, nullptr);
    const Time end = now();
    // The kernel counts a turn from the last time that the thread slept.
    if (ready == 0 || end - begin > kRest) {
        busy_since = end;
    }
    return {.frames = watched[0].revents != 0,
            .links = watched[1].revents != 0,
            .commands = watched[2].revents != 0,
            .addresses = watched[3].revents != 0};
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
    const uint64_t before = prober_.counted(Counted::kReturned);
    packets_.receive(kFramesPerTurn,
                     [this](uint32_t ifx, uint16_t vid, std::span<const uint8_t> frame) {
                         prober_.received(ifx, frame, now(), vid);
                     });
    // Probes of other switches arrive all the time and call for nothing.
    if (prober_.counted(Counted::kReturned) != before) {
        timekeeping_.alert(now());
    }
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
    std::optional<bool> end_of_dump;  // whether it is complete
    const bool complete = links_.receive(kDatagramsPerTurn, [&](nlmsghdr* message) {
        dump_interrupted_ |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        const bool end = message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR;
        if (!end) {
            view_.take(message, now());
        } else if (dumping_ && message->nlmsg_seq == dump_sequence_) {
            end_of_dump = message->nlmsg_type == NLMSG_DONE;
        }
    });
    if (end_of_dump) {
        end_dump(*end_of_dump);
    }
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
        timekeeping_.alert(begin);
    }
}

}  // namespace qv::tarnd
