// The service with a played probing thread, kernel and packet filter, in virtual time.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "qv/thread.h"
#include "services/tarnd/service.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_platform.h"
#include "tests/unit/tarnd/kernel_script.h"

namespace qv::tarnd::test {

// The next reports of the probing thread, and the commands that it has received.
std::deque<Report>& reports();
std::vector<Command>& commands();

struct ServiceRig {
    // `left`: ports that an earlier process has cut.
    explicit ServiceRig(const std::vector<uint32_t>& left = {});
    ServiceRig(const ServiceRig&) = delete;
    ServiceRig& operator=(const ServiceRig&) = delete;

    // The probing thread reports these, and the service takes them.
    void report(const std::vector<Report>& made);
    // Messages since the last call, as "TARN-4-CUT: text".
    std::vector<std::string> take_log();

    qv::test::TemporaryDirectory folder;
    qv::test::TestPlatform platform;
    const std::unique_ptr<qv_thread_master, void (*)(qv_thread_master*)> master;
    CutJournal cuts;
    CutJournal guards;
    GuardTable table;
    ProbeThread prober;
    StatusBoard board;
    Service service;

 private:
    size_t logged_ = 0;
};

}  // namespace qv::tarnd::test
