#include "services/tarnd/guard_table.h"

#include <nftables/libnftables.h>

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace qv::tarnd {
namespace {

std::string hex(const Mac& address, const char* separator) {
    std::string text;
    for (const uint8_t byte : address) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += (text.empty() ? "" : separator) + std::string(digits);
    }
    return text;
}

}  // namespace

GuardTable::GuardTable(const Mac& source)
    : name_("bridge tarnd_" + hex(source, "")),
      source_(hex(source, ":")),
      nft_(nft_ctx_new(NFT_CTX_DEFAULT)) {
    if (nft_ == nullptr) {
        throw std::runtime_error("nftables: out of memory");
    }
    nft_ctx_buffer_output(nft_);
    nft_ctx_buffer_error(nft_);
}

GuardTable::~GuardTable() {
    nft_ctx_free(nft_);
}

bool GuardTable::run(const std::string& commands) {
    return nft_run_cmd_from_buffer(nft_, commands.c_str()) == 0;
}

// Deleted first: a predecessor that was killed leaves its table. The rule compares the destination,
// not the type, for a tagged probe has its type further behind.
std::string GuardTable::install() {
    const std::string chain = name_ + " returned";
    const std::string hook = " { type filter hook prerouting priority -400 ; }";
    const std::string probe = " iif != @elsewhere ether daddr " + hex(kDestination, ":");
    std::string commands = "add table " + name_ + "\ndelete table " + name_ + "\nadd table " +
                           name_ + "\nadd set " + name_ + " elsewhere { type iface_index ; }\n";
    for (const uint32_t ifx : elsewhere_) {
        commands += element("add", ifx);
    }
    commands +=
        "add set " + name_ +
        " origins { type ether_addr ; flags dynamic, timeout ; timeout 1m ; size 1024 ; }\n";
    commands += "add chain " + chain + hook + "\nadd rule " + chain + probe + " ether saddr " +
                source_ + " drop\nadd rule " + chain + probe +
                " update @origins { ether saddr limit rate over 1000/second burst 256 packets } " +
                "drop\n";
    if (run(commands)) {
        pending_.clear();
        outdated_ = false;
        return "";
    }
    const std::string reason = nft_ctx_get_error_buffer(nft_);
    return reason.empty() ? "no reason given" : reason.substr(0, reason.find('\n'));
}

bool GuardTable::installed() {
    return !outdated_ && run("list chain " + name_ + " returned\n") &&
           std::string(nft_ctx_get_output_buffer(nft_)).find(source_) != std::string::npos;
}

std::string GuardTable::element(const char* command, uint32_t ifx) const {
    return std::string(command) + " element " + name_ + " elsewhere { " + std::to_string(ifx) +
           " }\n";
}

void GuardTable::set_elsewhere(uint32_t ifx, bool elsewhere) {
    if (elsewhere ? elsewhere_.insert(ifx).second : elsewhere_.erase(ifx) != 0) {
        pending_ += element(elsewhere ? "add" : "delete", ifx);
    }
}

void GuardTable::apply() {
    if (!pending_.empty()) {
        outdated_ |= !run(std::exchange(pending_, {}));
    }
}

void GuardTable::remove() {
    run("delete table " + name_ + "\n");
}

}  // namespace qv::tarnd
