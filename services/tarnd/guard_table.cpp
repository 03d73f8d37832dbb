#include "services/tarnd/guard_table.h"

#include <nftables/libnftables.h>

#include <cstdio>
#include <stdexcept>

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

// Deleted first: a predecessor that was killed leaves its table.
std::string GuardTable::install() {
    const std::string chain = name_ + " returned";
    const std::string hook = " { type filter hook prerouting priority -400 ; }";
    const std::string match = " ether type 0x88b5 ether saddr " + source_;
    const bool done =
        run("add table " + name_ + "\ndelete table " + name_ + "\nadd table " + name_ +
            "\nadd chain " + chain + hook + "\nadd rule " + chain + match + " drop\n");
    if (done) {
        return "";
    }
    const std::string reason = nft_ctx_get_error_buffer(nft_);
    return reason.substr(0, reason.find('\n'));
}

bool GuardTable::installed() {
    return run("list chain " + name_ + " returned\n") &&
           std::string(nft_ctx_get_output_buffer(nft_)).find(source_) != std::string::npos;
}

void GuardTable::remove() {
    run("delete table " + name_ + "\n");
}

}  // namespace qv::tarnd
