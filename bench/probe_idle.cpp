// Only the probing core, on more ports than a kernel bridge can have: every port's probe leaves by
// the same device.
//
//     probe_idle DEVICE PORTS SECONDS
//
// Prints nanoseconds of processor time, the probes sent, and the resident memory in KiB.
#include <net/if.h>
#include <poll.h>
#include <sodium.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>

#include "services/tarnd/prober.h"
#include "services/tarnd/sockets.h"

namespace {

using namespace qv;
using namespace qv::tarnd;

class OneDevice final : public ProberOutputs {
 public:
    explicit OneDevice(uint32_t ifx) : ifx_(ifx) {}
    bool send(uint32_t /*ifx*/, uint16_t vid, const Frame& frame) override {
        ++sent;
        return socket_.send(ifx_, vid, frame);
    }
    int guard(uint32_t, bool) override { return 0; }
    int cut(uint32_t /*ifx*/, bool /*single*/) override { return 0; }
    bool report(const Report& /*report*/) override { return true; }

    uint64_t sent = 0;

 private:
    PacketSocket socket_;
    uint32_t ifx_;
};

Time now() {
    return Time(std::chrono::steady_clock::now());
}

void run_until(Prober& prober, Time end) {
    while (now() < end) {
        prober.run(now());
        const Duration rest =
            std::max(std::min(prober.next(), end) - now(), Duration(std::chrono::microseconds(1)));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
        const timespec pause{.tv_sec = seconds.count(), .tv_nsec = (rest - seconds).count()};
        ppoll(nullptr, 0, &pause, nullptr);
    }
}

uint64_t used_ns() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto ns = [](const timeval& time) {
        return static_cast<uint64_t>(time.tv_sec) * 1000000000 +
               static_cast<uint64_t>(time.tv_usec) * 1000;
    };
    return ns(usage.ru_utime) + ns(usage.ru_stime);
}

std::string resident_kib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) {
            std::istringstream words(line);
            std::string name;
            std::string value;
            words >> name >> value;
            return value;
        }
    }
    return "0";
}

void measure(const char* device, uint32_t ports, unsigned seconds) {
    OneDevice outputs(if_nametoindex(device));
    Prober prober({.bridge = 1, .source = {2}, .key = {}, .first_sequence = 0}, outputs);
    const Time start = now();
    prober.configure({.enabled = true}, start);
    for (uint32_t ifx = 1; ifx <= ports; ++ifx) {
        prober.configure_port(ifx, true, false, start);
        prober.set_port(ifx, true, start);
    }
    // The bursts of ports that begin to forward come first.
    run_until(prober, start + std::chrono::seconds(4));
    const uint64_t before = used_ns();
    const uint64_t sent = outputs.sent;
    run_until(prober, now() + std::chrono::seconds(seconds));
    std::printf("%llu %llu %s\n", static_cast<unsigned long long>(used_ns() - before),
                static_cast<unsigned long long>(outputs.sent - sent), resident_kib().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || sodium_init() < 0) {
        std::fputs("usage: probe_idle DEVICE PORTS SECONDS\n", stderr);
        return 2;
    }
    try {
        measure(argv[1], static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)),
                static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "probe_idle: %s\n", error.what());
        return 1;
    }
}
