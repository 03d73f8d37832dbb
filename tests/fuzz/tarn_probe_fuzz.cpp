// Frames that arrive at the loop-probe service: whatever arrives, only an unchanged frame of this
// bridge may prove a loop and cut a port.
//
// The input is a list of steps of a prober with four ports, each with a byte that selects it, the
// port, the length of what follows, and that: bytes to receive; changes to a frame that was sent,
// pairs of place and mask, to receive then; time that passes; a port that begins or stops to
// forward, or leaves; an address that is learned; a changed frame that arrives in the VLAN of the
// first byte.
#include <sodium.h>

#include <algorithm>
#include <memory>
#include <span>
#include <vector>

#include "services/tarnd/frame.h"
#include "services/tarnd/prober.h"
#include "tests/fuzz/agent.h"

using namespace qv;
using namespace qv::tarnd;

namespace {

constexpr uint32_t kPorts = 4;
using Bytes = std::vector<uint8_t>;

class Switch final : public ProberOutputs {
 public:
    explicit Switch(std::span<const uint8_t> input)
        : identity_(identity(input)), prober_(identity_, *this) {
        prober_.configure({.enabled = true}, now_);
        const auto vlans =
            std::make_shared<const std::vector<uint16_t>>(std::vector<uint16_t>{7, 9});
        for (uint32_t ifx = 1; ifx <= kPorts; ++ifx) {
            prober_.configure_port(ifx, true, ifx % 2 == 0, now_, {.vlans = vlans});
            prober_.set_port(ifx, true, now_);
        }
        prober_.run(now_);
    }

    bool send(uint32_t /*ifx*/, uint16_t /*vid*/, const Frame& frame) override {
        sent_.emplace_back(frame.begin(), frame.end());
        return true;
    }
    int cut(uint32_t /*ifx*/, bool /*single*/) override {
        fuzz::require(genuine_, "a port is cut because of a frame that was sent");
        return 0;
    }
    int guard(uint32_t /*ifx*/, bool /*close*/) override { return 0; }
    bool report(const Report& report) override {
        if (report.kind == Report::Kind::kLoop) {
            fuzz::require(genuine_, "a loop is proved by a frame that was sent");
        }
        return true;
    }

    void step(uint8_t kind, uint32_t ifx, std::span<const uint8_t> rest) {
        switch (kind % 7) {
            case 0:
                return receive(ifx, rest);
            case 1:
                return receive(ifx, changed(rest));
            case 2:
                now_ += std::chrono::milliseconds(rest.empty() ? 1 : rest[0] * 20);
                break;
            case 3:
                prober_.set_port(ifx, !rest.empty(), now_);
                break;
            case 4:
                prober_.remove_port(ifx);
                break;
            case 5:
                prober_.learned(rest.empty() ? 1 : rest[0], ifx, now_);
                break;
            default:
                return receive(ifx, changed(rest.subspan(std::min<size_t>(1, rest.size()))),
                               rest.empty() ? 0 : rest[0]);
        }
        prober_.run(now_);
    }

 private:
    // Every input has a key of its own: the fuzzer learns the frames of one run and replays them in
    // the next, where they must prove nothing.
    static Prober::Identity identity(std::span<const uint8_t> input) {
        Prober::Identity made{
            .bridge = 77, .source = {2, 0, 0, 0, 0, 1}, .key = {}, .first_sequence = 1000};
        crypto_generichash(made.key.data(), made.key.size(), input.data(), input.size(), nullptr,
                           0);
        return made;
    }

    // The first byte selects one of the frames, from the latest on.
    Bytes changed(std::span<const uint8_t> rest) const {
        if (sent_.empty() || rest.empty()) {
            return {};
        }
        Bytes frame = sent_[sent_.size() - 1 - rest[0] % sent_.size()];
        for (size_t at = 1; at + 1 < rest.size(); at += 2) {
            frame[rest[at] % frame.size()] ^= rest[at + 1];
        }
        return frame;
    }

    void receive(uint32_t ifx, std::span<const uint8_t> frame, uint16_t vid = 0) {
        genuine_ = std::any_of(sent_.begin(), sent_.end(), [&](const Bytes& one) {
            return std::equal(one.begin(), one.end(), frame.begin(), frame.end());
        });
        Probe probe;
        const bool decoded = decode(frame, identity_.key, probe) == FrameFault::kNone;
        fuzz::require(decoded == genuine_, "a frame is accepted if it was sent, and only then");
        prober_.received(ifx, frame, now_, vid);
        prober_.run(now_);
        genuine_ = false;
    }

    Time now_{std::chrono::seconds(100)};
    std::vector<Bytes> sent_;
    bool genuine_ = false;
    const Prober::Identity identity_;
    Prober prober_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = sodium_init() >= 0;
    fuzz::require(ready, "libsodium starts");
    std::span<const uint8_t> input(data, size);
    Switch bridge(input);
    while (input.size() >= 3) {
        const size_t length = std::min<size_t>(input[2], input.size() - 3);
        bridge.step(input[0], 1 + input[1] % kPorts, input.subspan(3, length));
        input = input.subspan(3 + length);
    }
    return 0;
}
