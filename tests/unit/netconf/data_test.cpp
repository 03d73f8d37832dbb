// The reports of <get> and <get-config>, as XML.
#include "services/netconf/data.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "p_app.pb-c.h"
#include "services/netconf/operations.h"
#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/held_answers.h"
#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/notification_records.h"
#include "tests/unit/netconf/other_session.h"

using namespace netconf::test;
using netconf::Context;
using netconf::DatabaseLost;
using netconf::Options;
using netconf::Session;
using netconf::SessionNumber;
using netconf::Tree;
using qv::RunningLock;

namespace {

const std::string kMonitoring = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";
constexpr const char* kContainer = "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">";

class Data : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        set_time_of_day(1767323045);
        options_.redis.socket = peer_.socket();
        options_.runtime_dir = folder_.path("run");
        number_ = std::make_unique<SessionNumber>(options_.runtime_dir, getuid());
        session_.reset(
            new Session{.options = options_,
                        .context = context_.get(),
                        .number = *number_,
                        .lock = RunningLock(options_.runtime_dir, number_->id(), "admin"),
                        .subscription = nullptr});
    }

    void TearDown() override { nc_server_destroy(); }

    void publish_policy(uint32_t policy) {
        PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
        record.loop_policy_cli = policy;
        std::string packed(p_app__lda_nc_policy__get_packed_size(&record), '\0');
        p_app__lda_nc_policy__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
        peer_.store(22, "p_app.lda_nc_policy/", packed);
    }

    void publish_port(std::string name, uint32_t policy, bool src_port) {
        PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
        index.name = name.data();
        PApp__LdaLoopEntry record = P_APP__LDA_LOOP_ENTRY__INIT;
        record.index = &index;
        record.policy = policy;
        record.src_port = src_port ? 1 : 0;
        std::string packed(p_app__lda_loop_entry__get_packed_size(&record), '\0');
        p_app__lda_loop_entry__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
        peer_.store(4, "p_app.lda_loop_entry/name=" + name, packed);
    }

    static std::string xml_of(const lyd_node* tree) {
        char* printed = nullptr;
        lyd_print_mem(&printed, tree, LYD_XML, LYD_PRINT_SHRINK | LYD_PRINT_WITHSIBLINGS);
        const std::string text = printed == nullptr ? "" : printed;
        free(printed);
        return text;
    }

    std::string configuration(bool defaults) {
        Tree tree;
        add_configuration(*session_, tree, defaults);
        return xml_of(tree.get());
    }

    Tree state() {
        netconf::start_server(context_.get());
        Tree tree;
        add_state(*session_, tree);
        return tree;
    }

    // The part of `tree` between the first `<name` and the last `</name>`, both included.
    static std::string part(const Tree& tree, const std::string& name) {
        const std::string text = xml_of(tree.get());
        const size_t start = text.find("<" + name);
        const size_t end = text.rfind("</" + name + ">");
        return end == std::string::npos ? "" : text.substr(start, end - start + name.size() + 3);
    }

    Folder folder_;
    DatabasePeer peer_{folder_.path("redis.sock")};
    const Context context_ = netconf::load_modules(YANG_DIR);
    Options options_;
    std::unique_ptr<SessionNumber> number_;
    std::unique_ptr<Session> session_;
};

TEST_F(Data, PolicyInForceIsOneOfTheModels) {
    netconf::Database database({peer_.socket()});
    EXPECT_EQ(policy_in_force(database), 0U);
    for (const uint32_t policy : {0U, 1U, 2U, 3U, 4U}) {
        publish_policy(policy);
        EXPECT_EQ(policy_in_force(database), policy);
    }
    EXPECT_EQ(logged_texts(), std::vector<std::string>{});
    publish_policy(5);
    EXPECT_EQ(policy_in_force(database), 0U);
    EXPECT_EQ(logged(),
              (std::vector<LogLine>{{LOG_WARNING, "the agent's policy 5 is not in the model"}}));
    publish_policy(4294967295);
    EXPECT_EQ(policy_in_force(database), 0U);
}

TEST_F(Data, DefaultPolicyIsConfiguredOnlyWhenDefaultsAreWanted) {
    const auto leaf = [](const std::string& value) {
        return kContainer + ("<loop-policy>" + value + "</loop-policy></loop-detect>");
    };
    EXPECT_EQ(configuration(false), "");
    EXPECT_EQ(configuration(true), leaf("0"));
    publish_policy(4);
    EXPECT_EQ(configuration(false), leaf("4"));
    EXPECT_EQ(configuration(true), leaf("4"));
    publish_policy(5);
    EXPECT_EQ(configuration(false), "");
    EXPECT_EQ(configuration(true), leaf("0"));
}

TEST_F(Data, NothingIsReportedWithoutADatabase) {
    options_.redis.socket = folder_.path("nobody.sock");
    EXPECT_THROW(configuration(true), DatabaseLost);
    EXPECT_THROW(state(), DatabaseLost);
}

TEST_F(Data, LoopedPortsAreReportedByName) {
    publish_port("swp2", 0, true);
    publish_port("it's", 1, false);
    publish_port("a\"b", 1, true);
    EXPECT_EQ(part(state(), "loop-detect"),
              std::string(kContainer) +
                  "<looped-port><name>a\"b</name><policy>1</policy><src-port>true</src-port>"
                  "</looped-port>"
                  "<looped-port><name>it's</name><policy>1</policy><src-port>false</src-port>"
                  "</looped-port>"
                  "<looped-port><name>swp2</name><policy>0</policy><src-port>true</src-port>"
                  "</looped-port></loop-detect>");
    EXPECT_EQ(logged_texts(), std::vector<std::string>{});
}

TEST_F(Data, PortThatFitsNoModelIsLeftOut) {
    publish_port("swp1", 2, true);
    publish_port("'\"", 1, true);
    publish_port("swp3", 1, true);
    EXPECT_EQ(part(state(), "loop-detect"),
              std::string(kContainer) +
                  "<looped-port><name>swp3</name><policy>1</policy><src-port>true</src-port>"
                  "</looped-port></loop-detect>");
    const auto lines = logged();
    ASSERT_EQ(lines.size(), 2U);
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.priority, LOG_WARNING);
        EXPECT_EQ(line.text.substr(0, 27), "a looped port is left out: ");
    }
}

TEST_F(Data, HeldPortsSayWhatIsKnownOfThem) {
    answer_held_ports(peer_, {full_record(), {.name = "it's"}});
    EXPECT_EQ(part(state(), "errdisable"),
              "<errdisable xmlns=\"urn:qv:yang:qv-errdisable\"><port><name>swp2</name><cause>loop"
              "</cause><source>tarn</source><source>storm</source><other-port>swp3</other-port>"
              "<vlan>20</vlan><since>1970-01-01T00:00:01.001+00:00</since><recovers-at>"
              "1970-01-01T00:05:01.002+00:00</recovers-at><shut-last-day>4</shut-last-day>"
              "<still-looped>true</still-looped><rule>interval 600</rule><refused>too early"
              "</refused></port><port><name>it's</name><cause>loop</cause><shut-last-day>0"
              "</shut-last-day><still-looped>false</still-looped></port></errdisable>");
    EXPECT_EQ(logged_texts(), std::vector<std::string>{});
}

TEST_F(Data, HeldPortIsShownAsFarAsTheModelCan) {
    answer_held_ports(
        peer_,
        {{.name = ""}, {.name = "'\""}, {.name = "swp1", .sources = {"rumour"}}, {.name = "swp2"}});
    const std::string shown = part(state(), "errdisable");
    EXPECT_NE(shown.find("<name>swp2</name>"), std::string::npos);
    const auto lines = logged_texts();
    ASSERT_EQ(lines.size(), 3U);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.substr(0, 44), "a port that is held shut is not shown whole:");
    }
}

TEST_F(Data, OneStreamWithoutReplay) {
    EXPECT_EQ(part(state(), "streams"),
              "<streams><stream><name>NETCONF</name><description>all notifications of the switch"
              "</description><replaySupport>false</replaySupport></stream></streams>");
}

TEST_F(Data, StreamTellsHowFarBackItCanBeReplayed) {
    const std::string stream =
        "<streams><stream><name>NETCONF</name><description>all notifications of the switch"
        "</description><replaySupport>true</replaySupport><replayLogCreationTime>"
        "1970-01-01T00:00:01.007+00:00</replayLogCreationTime>";
    keep_log(peer_, 1007);
    EXPECT_EQ(part(state(), "streams"), stream + "</stream></streams>");
    keep_log(peer_, 1007, 2008);
    EXPECT_EQ(part(state(), "streams"),
              stream +
                  "<replayLogAgedTime>1970-01-01T00:00:02.008+00:00</replayLogAgedTime>"
                  "</stream></streams>");
}

TEST_F(Data, LockIsReportedWhileItIsHeld) {
    EXPECT_EQ(part(state(), "datastores"),
              "<datastores><datastore><name>running</name></datastore></datastores>");
    RunningLock other(options_.runtime_dir, 200, "eve");
    other.take();
    EXPECT_EQ(part(state(), "datastores"),
              "<datastores><datastore><name>running</name><locks><global-lock><locked-by-session>"
              "200</locked-by-session><locked-time>2026-01-02T03:04:05+00:00</locked-time>"
              "</global-lock></locks></datastore></datastores>");
}

TEST_F(Data, OwnLockIsReportedToo) {
    session_->lock.take();
    EXPECT_EQ(part(state(), "locked-by-session"),
              "<locked-by-session>" + std::to_string(number_->id()) + "</locked-by-session>");
}

TEST_F(Data, LockWithoutItsTimeIsLeftOut) {
    RunningLock other(options_.runtime_dir, 200, "eve");
    other.take();
    std::ofstream(options_.runtime_dir + "/running.lock") << "200\n";
    EXPECT_EQ(part(state(), "datastores"),
              "<datastores><datastore><name>running</name></datastore></datastores>");
}

// An entry of the list of sessions, with any time.
std::string entry(uint32_t id, const std::string& user) {
    return "<session><session-id>" + std::to_string(id) + "</session-id><transport xmlns:ncm=\"" +
           kMonitoring + "\">ncm:netconf-ssh</transport><username>" + user +
           R"(</username><login-time>\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d+\+00:00)"
           "</login-time></session>";
}

bool fits(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
}

TEST_F(Data, SessionsAreReportedByNumberEachWithItsUser) {
    forget_users();
    const OtherSession other(options_.runtime_dir, [] {
        if (getuid() == 0) {
            ASSERT_EQ(setuid(65534), 0);
        }
    });
    const std::string own = entry(number_->id(), std::to_string(getuid()));
    const std::string others = entry(other.id(), std::to_string(getuid() == 0 ? 65534 : getuid()));
    const std::string sessions = part(state(), "sessions");
    EXPECT_TRUE(fits(
        sessions,
        "<sessions>" + (number_->id() < other.id() ? own + others : others + own) + "</sessions>"))
        << sessions;
}

TEST_F(Data, LockOfAnImpossibleTimeIsLeftOutAlone) {
    RunningLock other(options_.runtime_dir, 200, "eve");
    other.take();
    for (const char* const line : {"200 2026-13-02T03:04:05Z eve", "200 2026-01-02T03:04:05 eve",
                                   "200 2026-01-02T03:04:05ZZ eve", "200 2026-1-02T03:04:05Zx eve",
                                   "200 2026-1-2T3:4:5Z eve", "x y z", "", "200 <a/> eve",
                                   "99999999999 2026-01-02T03:04:05Z eve", "-9 \xff\x01"}) {
        std::ofstream(options_.runtime_dir + "/running.lock") << line << "\n";
        EXPECT_EQ(part(state(), "datastores"),
                  "<datastores><datastore><name>running</name></datastore></datastores>")
            << line;
        EXPECT_NE(part(state(), "sessions"), "") << line;
    }
}

TEST_F(Data, SchemaThatIsOnlyImportedHasItsRevisionToo) {
    EXPECT_NE(part(state(), "schemas")
                  .find("<identifier>ietf-yang-types</identifier><version>2013-07-15</version>"),
              std::string::npos);
}

TEST_F(Data, EverySchemaIsReported) {
    const std::string schemas = part(state(), "schemas");
    EXPECT_NE(schemas.find("<schema><identifier>qv-loop-detect-server</identifier>"
                           "<version>2026-11-21</version><format xmlns:ncm=\"" +
                           kMonitoring +
                           "\">ncm:yang</format>"
                           "<namespace>urn:qv:yang:qv-loop-detect-server</namespace>"
                           "<location>NETCONF</location></schema>"),
              std::string::npos)
        << schemas;
    size_t count = 0;
    for (size_t at = 0;
         (at = schemas.find("<location>NETCONF</location>", at)) != std::string::npos; at++) {
        count++;
    }
    EXPECT_EQ(count, 15U);
}

TEST_F(Data, CapabilitiesAreThoseOfTheHello) {
    const std::string capabilities = part(state(), "capabilities");
    for (const char* const text :
         {"urn:ietf:params:netconf:base:1.0", "urn:ietf:params:netconf:base:1.1",
          "urn:ietf:params:netconf:capability:writable-running:1.0",
          "urn:ietf:params:netconf:capability:validate:1.1",
          "urn:ietf:params:netconf:capability:xpath:1.0",
          "urn:ietf:params:netconf:capability:with-defaults:1.0?basic-mode=trim&amp;also-supported="
          "report-all,trim",
          "urn:ietf:params:netconf:capability:notification:1.0",
          "urn:ietf:params:netconf:capability:interleave:1.0"}) {
        EXPECT_NE(capabilities.find("<capability>" + std::string(text) + "</capability>"),
                  std::string::npos)
            << text;
    }
    EXPECT_EQ(capabilities.find("candidate"), std::string::npos);
    // Modules of YANG 1.1 are left out, as in the hello.
    EXPECT_EQ(capabilities.find("module=ietf-yang-schema-mount"), std::string::npos);
    EXPECT_NE(capabilities.find("module=qv-loop-detect-server&amp;"), std::string::npos);
}

}  // namespace
