// The agent's own table of the kernel's packet filter, family netdev: one chain at the ingress of
// each watched port, a counter for each, and the set of known addresses.
//
// Every change is one transaction: all or nothing. Other tables are never
// changed.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/driver/forwarding_driver.h"
#include "platform/driver/linux/nft_objects.h"
#include "platform/driver/linux/nft_watch.h"

struct nft_ctx;

namespace qv {

// The settings of the kernel's meter for a rule's rate. Never out of the kernel's range.
struct KernelMeter {
    // The judged rate must be visible in the counter of every port that a storm passes, even when
    // it is metered at the other end: so the meter passes twice as much, and four seconds of that
    // at once.
    static constexpr uint64_t kRateFactor = 2;
    static constexpr uint64_t kBurstFactor = 8;

    uint64_t rate_pps;
    uint32_t burst;
};
KernelMeter kernel_meter(uint64_t rate_pps);

// Loop thread only. Functions return 0 or an errno value.
class NftTable {
 public:
    // The requests of one transaction. The chain and the counter of a rule have the rule's name,
    // which consists of letters, digits and dots.
    class Change {
     public:
        explicit Change(std::string table) : table_(std::move(table)) {}

        // Replaces the table, if there is one, with an empty one with an empty set.
        void replace_table();
        void drop_table();
        void add_counter(const std::string& name);
        void drop_counter(const std::string& name);
        // Only for a device that can be named.
        void add_chain(const std::string& name, const std::string& device,
                       const ForwardingRule& rule);
        // A missing chain is not an error.
        void drop_chain(const std::string& name);

        const std::string& text() const { return text_; }

     private:
        const std::string table_;
        std::string text_;
    };

    explicit NftTable(std::string name);
    ~NftTable();

    // Whether the filter's language can express the device's name.
    static bool can_name(const std::string& device);

    // Opens the sockets that changes need. The other functions do so when necessary; when they
    // return EMFILE or ENFILE they have changed nothing.
    int open();

    Change change() const { return Change(name_); }
    int run(const Change& change);

    // In one transaction; see NftObjects::change_set.
    int change_known(std::span<const uint64_t> added, std::span<const uint64_t> gone);

    int read_counters(std::vector<NamedCounter>& counters);

    // True when the kernel says that there is no such table.
    bool is_gone();

    // Whether another program has changed the table since the last call. Changes during one of ours
    // count as ours. When the kernel has dropped messages, which other programs can cause by
    // changing their own tables, the table is read and compared with its state after our last
    // change of a chain; `known` is what the set should hold.
    bool changed_outside(const std::set<uint64_t>& known);
    // Drops the changes that changed_outside() would report.
    void forget_changes();

 private:
    struct Free {
        void operator()(nft_ctx* context) const;
    };

    int open_objects();
    void note_changes_outside();
    bool differs(const std::set<uint64_t>& known);

    const std::string name_;
    NftObjects objects_;
    NftWatch watch_;
    bool changed_outside_ = false;
    bool messages_lost_ = false;  // and the table has not been read since
    // The chains after our last change of them; nothing until they have been read.
    std::optional<std::string> layout_;
    std::unique_ptr<nft_ctx, Free> context_;  // made by the first open()
};

}  // namespace qv
