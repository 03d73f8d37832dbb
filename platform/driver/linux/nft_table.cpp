#include "platform/driver/linux/nft_table.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <nftables/libnftables.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/base/tarn_limits.h"

namespace qv {
namespace {

constexpr const char* kKnownSet = "fdb";
// Loop probes, of this switch or of another, are not a storm: they pass uncounted. Probes that
// arrive faster than several switches send them are circling in a loop, and count.
constexpr const char* kProbeLimit = " limit rate 2000/second burst 2000 packets";
// The kernel computes in nanoseconds per frame.
constexpr uint64_t kFastestMeter = 1'000'000'000;

}  // namespace

KernelMeter kernel_meter(uint64_t rate_pps) {
    constexpr uint64_t kMostBurst = std::numeric_limits<uint32_t>::max();
    const uint64_t judged = std::min(rate_pps, kFastestMeter);
    return {
        .rate_pps = std::min(judged * KernelMeter::kRateFactor, kFastestMeter),
        .burst = static_cast<uint32_t>(std::min(judged * KernelMeter::kBurstFactor, kMostBurst))};
}

// "add" comes first because "delete" needs something to delete; adding what exists is no error.
void NftTable::Change::replace_table() {
    drop_table();
    text_ += "add table netdev " + table_ + "\nadd set netdev " + table_ + " " + kKnownSet +
             " { type ether_addr; }\n";
}

void NftTable::Change::drop_table() {
    text_ += "add table netdev " + table_ + "\ndelete table netdev " + table_ + "\n";
}

void NftTable::Change::add_counter(const std::string& name) {
    text_ += "add counter netdev " + table_ + " " + name + "\n";
}

void NftTable::Change::drop_counter(const std::string& name) {
    text_ += "delete counter netdev " + table_ + " " + name + "\n";
}

void NftTable::Change::add_chain(const std::string& name, const std::string& device,
                                 const ForwardingRule& rule) {
    text_ += "add chain netdev " + table_ + " " + name + " { type filter hook ingress device \"" +
             device + "\" priority 0; policy accept; }\n";
    const std::string add = "add rule netdev " + table_ + " " + name + " ";
    // "meta protocol" is the frame's type even after a VLAN tag.
    text_ += add + "meta protocol " + std::to_string(kProbeEtherType) + kProbeLimit + " accept\n";
    if (rule.ethertype) {
        text_ += add + "meta protocol != " + std::to_string(*rule.ethertype) + " accept\n";
    }
    if (rule.unknown_destination) {
        text_ += add + "ether daddr @" + kKnownSet + " accept\n";
    }
    if (rule.counted) {
        text_ += add + "counter name " + name + "\n";
    }
    if (rule.meter) {
        const KernelMeter meter = kernel_meter(rule.meter->rate_pps);
        text_ += add + "limit rate over " + std::to_string(meter.rate_pps) + "/second burst " +
                 std::to_string(meter.burst) + " packets counter drop\n";
    }
}

// Some kernels remove a chain with its device, others keep it. "add" makes both cases the same.
void NftTable::Change::drop_chain(const std::string& name) {
    const std::string chain = " chain netdev " + table_ + " " + name + "\n";
    text_ += "add" + chain + "flush" + chain + "delete" + chain;
}

void NftTable::Free::operator()(nft_ctx* context) const {
    nft_ctx_free(context);
}

NftTable::NftTable(std::string name) : name_(std::move(name)), watch_(name_) {}

NftTable::~NftTable() = default;

// The language has no escapes inside quotes, and takes a star for a pattern.
bool NftTable::can_name(const std::string& device) {
    return device.find_first_of("\"\\*") == std::string::npos;
}

// Our own socket tries first: without a packet filter the library ends the process.
int NftTable::open() {
    int error = open_objects();
    if (error == 0) {
        error = objects_.check_available();
    }
    if (error != 0 || context_) {
        return error;
    }
    // The library also ends the process when there is no descriptor left for its own socket.
    const int spare = eventfd(0, EFD_CLOEXEC);
    if (spare < 0) {
        return errno;
    }
    close(spare);
    context_.reset(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!context_) {
        return ENOMEM;
    }
    // Keeps the library from printing; its errors are taken from errno.
    nft_ctx_buffer_error(context_.get());
    nft_ctx_buffer_output(context_.get());
    return 0;
}

int NftTable::open_objects() {
    const int error = objects_.open();
    return error != 0 ? error : watch_.open();
}

int NftTable::run(const Change& change) {
    if (const int error = open(); error != 0) {
        return error;
    }
    note_changes_outside();
    errno = 0;
    const int result = nft_run_cmd_from_buffer(context_.get(), change.text().c_str());
    const int error = result == 0 ? 0 : errno != 0 ? errno : EIO;
    nft_ctx_get_error_buffer(context_.get());  // empties it
    watch_.read();                             // our own change
    layout_.reset();
    return error;
}

int NftTable::change_known(std::span<const uint64_t> added, std::span<const uint64_t> gone) {
    if (const int error = open_objects(); error != 0) {
        return error;
    }
    note_changes_outside();
    const int error = objects_.change_set(name_, kKnownSet, added, gone);
    watch_.read();  // our own change
    return error;
}

int NftTable::read_counters(std::vector<NamedCounter>& counters) {
    const int error = objects_.open();
    return error != 0 ? error : objects_.read_counters(name_, counters);
}

bool NftTable::is_gone() {
    return objects_.open() == 0 && objects_.find_table(name_) == ENOENT;
}

void NftTable::note_changes_outside() {
    const NftWatch::Change change = watch_.read();
    changed_outside_ = changed_outside_ || change == NftWatch::Change::kChanged;
    messages_lost_ = messages_lost_ || change == NftWatch::Change::kUnknown;
}

// Reads the layout after a change of ours, or compares with it when messages were lost. If the
// table cannot be read now, the next call tries again. If messages were lost before the layout
// could be read there is nothing to compare with, and the result is true.
bool NftTable::differs(const std::set<uint64_t>& known) {
    std::string layout;
    if (objects_.read_layout(name_, layout) != 0) {
        return false;
    }
    if (!messages_lost_) {
        layout_ = std::move(layout);
        return false;
    }
    std::vector<uint64_t> elements;
    const int error = objects_.read_set(name_, kKnownSet, elements);
    if (error != 0 && error != ENOENT) {
        return false;
    }
    messages_lost_ = false;
    std::sort(elements.begin(), elements.end());
    return layout_ != layout ||
           !std::equal(elements.begin(), elements.end(), known.begin(), known.end());
}

bool NftTable::changed_outside(const std::set<uint64_t>& known) {
    if (open_objects() != 0) {
        return false;  // the kernel keeps the messages for the next call
    }
    note_changes_outside();
    if (!changed_outside_ && (messages_lost_ || !layout_)) {
        changed_outside_ = differs(known);
    }
    const bool changed = changed_outside_;
    if (changed) {
        forget_changes();
    }
    return changed;
}

void NftTable::forget_changes() {
    watch_.read();
    changed_outside_ = false;
    messages_lost_ = false;
    layout_.reset();
}

}  // namespace qv
