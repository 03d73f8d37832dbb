#include "tests/unit/tarnd/service_rig.h"

#include <unistd.h>

#include <optional>
#include <utility>

#include "platform/client/thread_master.h"

namespace qv::tarnd::test {

std::deque<Report>& reports() {
    static auto& queue = *new std::deque<Report>;
    return queue;
}

std::vector<Command>& commands() {
    static auto& taken = *new std::vector<Command>;
    return taken;
}

}  // namespace qv::tarnd::test

using namespace qv::tarnd;

std::string played_start(ProbeThread* thread) asm(
    "__wrap__ZN2qv5tarnd11ProbeThread5startB5cxx11Ev");
std::string played_start(ProbeThread* /*thread*/) {
    return "";
}

bool played_command(ProbeThread* thread, const Command& command) asm(
    "__wrap__ZN2qv5tarnd11ProbeThread7commandERKNS0_7CommandE");
bool played_command(ProbeThread* /*thread*/, const Command& command) {
    test::commands().push_back(command);
    return true;
}

std::optional<Report> played_report(ProbeThread* thread) asm(
    "__wrap__ZN2qv5tarnd11ProbeThread11next_reportEv");
std::optional<Report> played_report(ProbeThread* /*thread*/) {
    if (test::reports().empty()) {
        return std::nullopt;
    }
    const Report report = test::reports().front();
    test::reports().pop_front();
    return report;
}

namespace qv::tarnd::test {
namespace {

// Called first: what an earlier rig has left is dropped.
const Prober::Identity& identity() {
    allow_packet_socket();
    commands().clear();
    kernel() = {};
    nft() = {};
    nft().table = true;
    static const Prober::Identity kIdentity{
        .bridge = 1, .source = {0x02, 0, 0, 0, 0, 0x07}, .key = {}, .first_sequence = 1};
    return kIdentity;
}

CutJournal& with(CutJournal& journal, const std::vector<uint32_t>& ports) {
    for (const uint32_t ifx : ports) {
        journal.note(ifx);
    }
    return journal;
}

}  // namespace

ServiceRig::ServiceRig(const std::vector<uint32_t>& left)
    : master(qv_thread_master_create(), qv_thread_master_finish),
      cuts(folder.file("cuts"), "boot"),
      guards(folder.file("guards"), "boot"),
      table(identity().source),
      prober(identity(), "br0", cuts, guards),
      service(loop_of(master.get()), prober, with(cuts, left), guards, table, board, Key{}) {
    platform.run_ready();
}

void ServiceRig::report(const std::vector<Report>& made) {
    reports().assign(made.begin(), made.end());
    const uint64_t one = 1;
    ASSERT_EQ(write(prober.reports_fd(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
    platform.run_ready();
    ASSERT_TRUE(reports().empty());
}

std::vector<std::string> ServiceRig::take_log() {
    std::vector<std::string> lines = platform.log.lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(logged_));
    logged_ += lines.size();
    return lines;
}

}  // namespace qv::tarnd::test
