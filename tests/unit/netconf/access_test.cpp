// The group of users who may change the configuration.
#include "services/netconf/access.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

using netconf::may_change;

namespace {

std::string name_of(gid_t group) {
    const struct group* const entry = getgrgid(group);
    return entry == nullptr ? "" : entry->gr_name;
}

class Access : public testing::Test {
 protected:
    void SetUp() override {
        before_.resize(static_cast<size_t>(getgroups(0, nullptr)));
        getgroups(static_cast<int>(before_.size()), before_.data());
    }
    void TearDown() override {
        if (geteuid() == 0) {
            EXPECT_EQ(setgroups(before_.size(), before_.data()), 0);
        }
    }

    std::vector<gid_t> before_;
};

TEST_F(Access, EveryoneMayChangeWithoutAGroup) {
    EXPECT_TRUE(may_change(""));
}

TEST_F(Access, PrimaryGroupCounts) {
    EXPECT_TRUE(may_change(name_of(getegid())));
}

TEST_F(Access, SupplementaryGroupCountsAndNoOther) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can set the groups of a process";
    }
    const std::vector<gid_t> daemon_and_bin{1, 2};
    ASSERT_EQ(setgroups(daemon_and_bin.size(), daemon_and_bin.data()), 0);
    EXPECT_TRUE(may_change("daemon"));
    EXPECT_TRUE(may_change("bin"));
    EXPECT_FALSE(may_change("sys"));
    ASSERT_EQ(setgroups(0, nullptr), 0);
    EXPECT_FALSE(may_change("daemon"));
    EXPECT_TRUE(may_change(name_of(getegid())));
}

TEST_F(Access, UnknownGroupIsNamed) {
    try {
        may_change("no-such-group");
        FAIL() << "accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "[netconf] write_group: there is no group \"no-such-group\"");
    }
}

}  // namespace
