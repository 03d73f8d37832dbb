// The command line of lda-netconf.
#include "services/netconf/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/netconf/command_line.h"
#include "tests/unit/netconf/database_peer.h"

using netconf::Options;

namespace {

class OptionsOfTheFront : public testing::Test {
 protected:
    void SetUp() override { unsetenv("LDA_PLATFORM"); }

    static Options read(const std::vector<std::string>& words) {
        return netconf::test::with_command_line(words, netconf::read_options);
    }

    static std::string fault(const std::vector<std::string>& words) {
        try {
            read(words);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }

    // A platform file that names `socket`.
    std::string platform_file(const std::string& name, const std::string& socket) {
        std::ofstream(folder_.path(name)) << "[redis]\nsocket = \"" << socket << "\"\n";
        return folder_.path(name);
    }

    netconf::test::Folder folder_;
};

TEST_F(OptionsOfTheFront, DefaultsAreThoseOfTheUsage) {
    const Options options = read({});
    EXPECT_EQ(options.redis.socket, "/run/redis/redis-server.sock");
    EXPECT_EQ(options.yang_dir, YANG_DIR);
    EXPECT_EQ(options.runtime_dir, "/run/lda-netconf");
    EXPECT_FALSE(options.log_to_stderr);
    EXPECT_FALSE(options.help);
}

TEST_F(OptionsOfTheFront, EachOptionSetsItsOwnValue) {
    const Options options = read({"--redis", "/a", "--yang", "/b", "--runtime", "/c", "--stderr"});
    EXPECT_EQ(options.redis.socket, "/a");
    EXPECT_EQ(options.yang_dir, "/b");
    EXPECT_EQ(options.runtime_dir, "/c");
    EXPECT_TRUE(options.log_to_stderr);
    EXPECT_FALSE(options.help);
}

TEST_F(OptionsOfTheFront, SocketComesFromTheOptionThenThePlatformFileThenTheEnvironment) {
    const std::string named = platform_file("named.toml", "/named");
    setenv("LDA_PLATFORM", platform_file("environment.toml", "/environment").c_str(), 1);
    EXPECT_EQ(read({}).redis.socket, "/environment");
    EXPECT_EQ(read({"--platform", named}).redis.socket, "/named");
    EXPECT_EQ(read({"--platform", named, "--redis", "/own"}).redis.socket, "/own");
}

TEST_F(OptionsOfTheFront, LoginComesFromThePlatformFileAlsoWithASocketOfItsOwn) {
    const std::string file = folder_.path("login.toml");
    std::ofstream(file) << "[redis]\nuser = \"front\"\npassword_file = \"/password\"\n";
    EXPECT_EQ(read({}).redis.user, "");
    const Options options = read({"--platform", file, "--redis", "/own"});
    EXPECT_EQ(options.redis.socket, "/own");
    EXPECT_EQ(options.redis.user, "front");
    EXPECT_EQ(options.redis.password_file, "/password");
}

TEST_F(OptionsOfTheFront, SharedFolderComesFromTheOptionThenThePlatformFile) {
    const std::string file = folder_.path("runtime.toml");
    std::ofstream(file) << "[netconf]\nruntime = \"/there\"\n";
    EXPECT_EQ(read({"--platform", file}).runtime_dir, "/there");
    EXPECT_EQ(read({"--platform", file, "--runtime", "/own"}).runtime_dir, "/own");
}

TEST_F(OptionsOfTheFront, WriteGroupComesFromThePlatformFileAlsoWithASocketOfItsOwn) {
    const std::string file = folder_.path("group.toml");
    std::ofstream(file) << "[netconf]\nwrite_group = \"operators\"\n";
    EXPECT_EQ(read({}).write_group, "");
    EXPECT_EQ(read({"--platform", file}).write_group, "operators");
    EXPECT_EQ(read({"--platform", file, "--redis", "/own"}).write_group, "operators");
    setenv("LDA_PLATFORM", file.c_str(), 1);
    EXPECT_EQ(read({"--redis", "/own"}).write_group, "operators");
    EXPECT_EQ(fault({"--platform", "/nowhere.toml", "--redis", "/own"}),
              "/nowhere.toml: cannot be read: No such file or directory");
}

TEST_F(OptionsOfTheFront, HelpNeedsNoPlatformFile) {
    EXPECT_TRUE(read({"--platform", "/nowhere.toml", "--help"}).help);
    EXPECT_EQ(fault({"--platform", "/nowhere.toml"}),
              "/nowhere.toml: cannot be read: No such file or directory");
}

TEST_F(OptionsOfTheFront, BadArgumentIsNamed) {
    EXPECT_EQ(fault({"--nonsense", "--help"}), "bad argument: --nonsense");
    EXPECT_EQ(fault({"--stderr", "word"}), "bad argument: word");
    EXPECT_EQ(fault({"--help", "one", "two"}), "bad argument: one");
    EXPECT_EQ(fault({"--redis"}), "bad argument: --redis");
    EXPECT_EQ(fault({"--help=yes"}), "bad argument: --help=yes");
    EXPECT_EQ(fault({"--stderr=yes"}), "bad argument: --stderr=yes");
}

TEST_F(OptionsOfTheFront, UsageNamesEveryOption) {
    EXPECT_EQ(netconf::usage(),
              "usage: lda-netconf [--platform FILE] [--redis SOCKET] [--yang DIR] [--runtime DIR]\n"
              "                   [--stderr] [--help]\n"
              "\n"
              "Speaks NETCONF on standard input and output: one process, one session. Meant to be\n"
              "started by sshd as its subsystem \"netconf\".\n"
              "\n"
              "  --platform FILE   platform file of the switch, for its [redis] socket and\n"
              "                    [netconf] section\n"
              "                    (default: the environment variable LDA_PLATFORM)\n"
              "  --redis SOCKET    Unix socket of the object database\n"
              "  --yang DIR        folder of the YANG modules (default: " YANG_DIR
              ")\n"
              "  --runtime DIR     folder that sessions and agent share, else [netconf] runtime\n"
              "  --stderr          log to standard error as well as to the system log\n");
}

}  // namespace
