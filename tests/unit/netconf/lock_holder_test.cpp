// The texts of /proc, in which a process chooses its own name.
#include "services/netconf/lock_holder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

using netconf::has_lock_on;
using netconf::start_ticks_in;
using netconf::user_in;

namespace {

const std::string kNineteenFields = " S 1 1 1 0 -1 4194560 9 0 0 0 1 2 0 0 20 0 1 0 ";

TEST(LockHolder, StartIsTheTwentySecondFieldWhateverTheNameOfTheProgram) {
    EXPECT_EQ(start_ticks_in("4711 (lda-netconf)" + kNineteenFields + "8123 4096 1\n"), 8123U);
    EXPECT_EQ(start_ticks_in("4711 (a b) R 1 (c)" + kNineteenFields + "8123 4096 1\n"), 8123U);
    EXPECT_EQ(start_ticks_in("4711 (lda-netconf)" + kNineteenFields), std::nullopt);
    EXPECT_EQ(start_ticks_in("4711 (lda-netconf)" + kNineteenFields + "-8 1\n"), std::nullopt);
    EXPECT_EQ(start_ticks_in("4711 lda-netconf 1 2"), std::nullopt);
    EXPECT_EQ(start_ticks_in(""), std::nullopt);
}

TEST(LockHolder, UserIsTheRealOneInItsOwnLine) {
    EXPECT_EQ(user_in("Name:\tx Uid:\t0\nUmask:\t0007\nUid:\t1001\t0\t0\t0\nGid:\t5\n"), 1001U);
    EXPECT_EQ(user_in("Name:\tx Uid:\t0\n"), std::nullopt);
    EXPECT_EQ(user_in("Name:\tx\nUid:\tx\n"), std::nullopt);
    EXPECT_EQ(user_in("Name:\tx\nUid:"), std::nullopt);
    EXPECT_EQ(user_in(""), std::nullopt);
}

TEST(LockHolder, LockCoversItsRange) {
    const std::string before = "pos:\t0\nflags:\t0100002\nmnt_id:\t27\nino:\t7\n";
    const std::string one = before + "lock:\t1: POSIX  ADVISORY  WRITE 27085 fe:00:7 7 9\n";
    EXPECT_FALSE(has_lock_on(one, 6));
    EXPECT_TRUE(has_lock_on(one, 7));
    EXPECT_TRUE(has_lock_on(one, 9));
    EXPECT_FALSE(has_lock_on(one, 10));
    const std::string open_end = one + "lock:\t2: OFDLCK ADVISORY  READ -1 fe:00:7 20 EOF\n";
    EXPECT_FALSE(has_lock_on(open_end, 19));
    EXPECT_TRUE(has_lock_on(open_end, 1000));
    EXPECT_FALSE(has_lock_on(before, 0));
    EXPECT_FALSE(has_lock_on("lock:\t1: POSIX  ADVISORY  WRITE 27085 fe:00:7 x 9\n", 7));
    EXPECT_FALSE(has_lock_on("lock:\t1: POSIX  ADVISORY  WRITE 27085 fe:00:7 7\n", 7));
    EXPECT_FALSE(has_lock_on("lock:", 7));
}

TEST(LockHolder, ProcessHasItsUserAndUnknownOnesHaveNone) {
    ASSERT_TRUE(netconf::process_info(getpid()));
    EXPECT_EQ(netconf::process_info(getpid())->user, getuid());
    EXPECT_FALSE(netconf::process_info(0));
    EXPECT_FALSE(netconf::process_info(1 << 30));
}

}  // namespace
