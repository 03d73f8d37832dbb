// "clear logging" empties the list that "show logging" prints, and the system log says who did it.
#include <gtest/gtest.h>

#include <string>

#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/operator_session.h"

namespace {

TEST(ClearLogging, EmptiesTheListAndLeavesTheSystemLogWithWhoDidIt) {
    qv::test::CliRig rig;
    qv::test::OperatorSession ann("ann", 1001, 812);
    printk_syslog(4, "LDA", "LOOP_DETECT", "before");
    EXPECT_EQ(ann.type("show logging | count"), "1\n");
    EXPECT_EQ(ann.type("clear logging"), "");
    EXPECT_EQ(ann.code, 0);
    EXPECT_EQ(ann.type("show logging"), "");
    EXPECT_EQ(
        rig.platform.log.lines(),
        (std::vector<std::string>{"LDA-4-LOOP_DETECT: before",
                                  "CLI-6-CONFIG: \"clear logging\" by ann (uid 1001, pid 812)"}));
    printk_syslog(4, "LDA", "LOOP_DETECT", "after");
    EXPECT_EQ(ann.type("show logging | count"), "1\n");
}

TEST(ClearLogging, ViewSessionsCannot) {
    qv::test::CliRig rig;
    rig.session.privileged = false;
    printk_syslog(4, "LDA", "LOOP_DETECT", "before");
    EXPECT_EQ(rig.type("clear logging"), "% Unknown command: 'clear'.\n");
    EXPECT_EQ(rig.type("show logging | count"), "1\n");
}

}  // namespace
