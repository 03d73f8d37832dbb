// Descriptors of sessions when the process has few left.
#include "platform/cli/session_descriptors.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::SessionDescriptors;
using qv::test::open_descriptors;

// The number that the next descriptor of this process gets.
int next_descriptor() {
    const int fd = ::dup(STDIN_FILENO);
    ::close(fd);
    return fd;
}

// Allows only descriptors below `end`; returns the previous limit.
rlim_t limit_descriptors(rlim_t end) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = end;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    return before;
}

TEST(SessionDescriptorsTest, AllAreClosedInTheEnd) {
    const size_t before = open_descriptors();
    {
        SessionDescriptors descriptors;
        EXPECT_EQ(open_descriptors(), before + 9) << "one, and eight spares";
        ::close(descriptors.open());
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(SessionDescriptorsTest, SpareThatCannotBeReplacedIsReplacedLater) {
    SessionDescriptors descriptors;
    const rlim_t before = limit_descriptors(0);
    for (int spare = 0; spare < 8; ++spare) {
        EXPECT_GE(descriptors.open(), 0);
    }
    EXPECT_EQ(descriptors.open(), -1);
    limit_descriptors(before);
    const int next = next_descriptor();
    limit_descriptors(static_cast<rlim_t>(next) + 1);
    EXPECT_EQ(descriptors.open(), next) << "the only one left";
    limit_descriptors(before);
    descriptors.refill();
    limit_descriptors(0);
    for (int spare = 0; spare < 8; ++spare) {
        EXPECT_GE(descriptors.open(), 0) << spare;
    }
    EXPECT_EQ(descriptors.open(), -1);
    limit_descriptors(before);
}

}  // namespace
