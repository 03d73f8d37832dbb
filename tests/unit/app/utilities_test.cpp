// Condition variables and temporary paths.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "lda_main.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

using fake::error;
using fake::Lines;

// ---- Condition variable ----

namespace {

class Condition : public AgentTest {
 protected:
    pthread_cond_t cond_;
};

}  // namespace

TEST_F(Condition, RunsOnTheMonotonicClock) {
    EXPECT_EQ(lda_pthread_cond_init(&cond_), 0);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_condattr_init", "pthread_condattr_setclock monotonic",
                                    "pthread_cond_init monotonic", "pthread_condattr_destroy"}));
}

TEST_F(Condition, ReportsAnAttributeThatCannotBeMade) {
    fake::fail("pthread_condattr_init", 12);
    EXPECT_EQ(lda_pthread_cond_init(&cond_), -1);
    EXPECT_EQ(fake::calls(),
              (Lines{"pthread_condattr_init",
                     error("lda_pthread_cond_init", "pthread_condattr_init error\n")}));
}

TEST_F(Condition, ReportsAClockThatCannotBeSetAndDestroysTheAttribute) {
    fake::fail("pthread_condattr_setclock", 22);
    EXPECT_EQ(lda_pthread_cond_init(&cond_), -1);
    EXPECT_EQ(fake::calls(),
              (Lines{"pthread_condattr_init", "pthread_condattr_setclock monotonic",
                     error("lda_pthread_cond_init", "pthread_condattr_setclock error\n"),
                     "pthread_condattr_destroy"}));
}

TEST_F(Condition, ReportsAConditionThatCannotBeMadeAndDestroysTheAttribute) {
    fake::fail("pthread_cond_init", 12);
    EXPECT_EQ(lda_pthread_cond_init(&cond_), -1);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_condattr_init", "pthread_condattr_setclock monotonic",
                                    "pthread_cond_init monotonic",
                                    error("lda_pthread_cond_init", "pthread_cond_init error\n"),
                                    "pthread_condattr_destroy"}));
}

// ---- Temporary path ----

TEST(MakePath, NameFollowsTheDefaultDirectoryDirectly) {
    unsetenv("TMPDIR");
    EXPECT_STREQ(lda_make_path("loops"), "/tmploops");
    EXPECT_STREQ(lda_make_path("/loops"), "/tmp/loops");
    EXPECT_STREQ(lda_make_path(""), "/tmp");
}

TEST(MakePath, TakesTheDirectoryFromTheEnvironment) {
    setenv("TMPDIR", "/var/run/", 1);
    EXPECT_STREQ(lda_make_path("loops"), "/var/run/loops");
}

TEST(MakePath, ReturnsTheSameBufferEachTime) {
    unsetenv("TMPDIR");
    const char* first = lda_make_path("a");
    EXPECT_EQ(lda_make_path("b"), first);
    EXPECT_STREQ(first, "/tmpb");
}

TEST(MakePath, PathIsCutToSixtyFourBytes) {
    unsetenv("TMPDIR");
    std::string name(100, 'x');
    EXPECT_EQ(std::string(lda_make_path(name.c_str())), "/tmp" + std::string(59, 'x'));
    std::string directory = "/" + std::string(99, 'd');
    setenv("TMPDIR", directory.c_str(), 1);
    EXPECT_EQ(std::string(lda_make_path("name")), "/" + std::string(62, 'd'));
}
