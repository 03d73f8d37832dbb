// "terminal length": how the shell learns the setting from the replies.
#include <gtest/gtest.h>

#include <string>

#include "platform/cli/wire.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

class TerminalLength : public ::testing::Test {
 protected:
    // The reply to a line that prints nothing.
    std::string reply_to(const std::string& line) {
        EXPECT_EQ(rig.type(line), "") << line;
        return qv::cli::reply({rig.code, ""}, rig.session);
    }

    qv::test::CliRig rig;
};

TEST_F(TerminalLength, RepliesCarryItUntilItIsTakenBack) {
    EXPECT_EQ(reply_to(""), "{\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_EQ(reply_to("terminal length 0"),
              "{\"length\":0,\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_EQ(reply_to("configure terminal"),
              "{\"length\":0,\"output\":\"\",\"prompt\":\"lda(config)# \",\"result\":0}\n");
    EXPECT_EQ(reply_to("do term len 512"),
              "{\"length\":512,\"output\":\"\",\"prompt\":\"lda(config)# \",\"result\":0}\n");
    EXPECT_EQ(reply_to("do terminal no length"),
              "{\"output\":\"\",\"prompt\":\"lda(config)# \",\"result\":0}\n");
}

TEST_F(TerminalLength, ViewSessionsMaySetIt) {
    rig.session.privileged = false;
    EXPECT_EQ(reply_to("terminal length 24"),
              "{\"length\":24,\"output\":\"\",\"prompt\":\"lda> \",\"result\":0}\n");
}

TEST_F(TerminalLength, HasItsRange) {
    EXPECT_EQ(rig.type("terminal length 513"), "% Number out of range: '513' (0-512).\n");
    EXPECT_EQ(rig.type("terminal length -1"), "% Number out of range: '-1' (0-512).\n");
    EXPECT_EQ(rig.type("terminal length"), "% Incomplete command.\n");
    EXPECT_FALSE(rig.session.length.has_value());
}

}  // namespace
