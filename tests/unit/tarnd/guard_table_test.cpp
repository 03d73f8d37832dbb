// The packet filter's table when the kernel refuses it.
#include "services/tarnd/guard_table.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/unit/tarnd/kernel_script.h"

namespace qv::tarnd {
namespace {

using test::nft;

struct GuardTableTest : testing::Test {
    GuardTableTest() { nft() = {}; }

    static void refuse(const std::string& error) {
        nft().refusals = 1;
        nft().error = error;
    }
    static std::string last_run() { return nft().runs.empty() ? "none" : nft().runs.back(); }

    GuardTable table{{0x02, 0, 0, 0, 0, 0x07}};
};

TEST_F(GuardTableTest, RefusalIsTheFirstLineOfTheLibrarysError) {
    for (const std::string reason : {"Operation not permitted", "No buffer space available",
                                     "Network is down", "No such device"}) {
        refuse("internal:0:0-0: Error: Could not process rule: " + reason + "\nadd table\n^^^\n");
        EXPECT_EQ(table.install(), "internal:0:0-0: Error: Could not process rule: " + reason);
        EXPECT_FALSE(nft().table);
        EXPECT_FALSE(table.installed());
    }
    EXPECT_EQ(table.install(), "");
    EXPECT_TRUE(table.installed());
}

TEST_F(GuardTableTest, RefusalWithoutAReasonIsARefusal) {
    refuse("");
    EXPECT_EQ(table.install(), "no reason given");
}

TEST_F(GuardTableTest, TableThatSomebodyHasDeletedIsNotInstalled) {
    ASSERT_EQ(table.install(), "");
    nft().table = false;
    EXPECT_FALSE(table.installed());
}

TEST_F(GuardTableTest, PortOfAnotherBridgeThatIsRefusedIsInTheNextTable) {
    ASSERT_EQ(table.install(), "");
    table.set_elsewhere(7, true);
    refuse("Error: Could not process rule: No buffer space available");
    table.apply();
    EXPECT_EQ(last_run(), "add element bridge tarnd_020000000007 elsewhere { 7 }\n");
    EXPECT_FALSE(table.installed());
    refuse("Error: Could not process rule: No buffer space available");
    EXPECT_NE(table.install(), "");
    EXPECT_FALSE(table.installed());
    EXPECT_EQ(table.install(), "");
    EXPECT_NE(last_run().find("add element bridge tarnd_020000000007 elsewhere { 7 }\n"),
              std::string::npos);
    EXPECT_TRUE(table.installed());
}

TEST_F(GuardTableTest, ChangeThatTheTableContainsIsNotMadeAgain) {
    ASSERT_EQ(table.install(), "");
    table.set_elsewhere(7, true);
    ASSERT_EQ(table.install(), "");
    const size_t runs = nft().runs.size();
    table.apply();
    EXPECT_EQ(nft().runs.size(), runs);
}

}  // namespace
}  // namespace qv::tarnd
