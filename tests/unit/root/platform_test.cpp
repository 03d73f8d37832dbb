#include "platform/root/platform.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "p_bridge.pb-c.h"
#include "platform/cli/engine.h"
#include "platform/cli/tarn_commands.h"
#include "platform/cli/tarn_show.h"
#include "platform/client/thread_master.h"
#include "platform/driver/embedded/memory_store.h"
#include "platform/driver/forwarding_driver.h"
#include "platform/driver/linux/redis_lease.h"
#include "platform/driver/linux/redis_store.h"
#include "qv/mom.h"
#include "tests/support/manual_clock.h"
#include "tests/support/scripted_server.h"

namespace {

class PlatformFile : public ::testing::Test {
 protected:
    PlatformFile() : path_(testing::TempDir() + "lda-platform-" + std::to_string(getpid())) {
        qv::set_platform_maker(qv::describe_platform);
    }
    ~PlatformFile() override { unlink(path_.c_str()); }

    void describe(const std::string& text) {
        std::ofstream(path_) << text;
        setenv("LDA_PLATFORM", path_.c_str(), 1);
    }

    const std::string path_;
};

using PlatformDeathTest = PlatformFile;

bool ports_complete() {
    return qv::platform().ports().complete();
}

TEST_F(PlatformDeathTest, BadFileEndsTheStartWithFileLineAndReason) {
    describe("store = \"memory\"\ncolour = \"red\"\n");
    EXPECT_EXIT(qv::platform(), testing::ExitedWithCode(1),
                "^lda: " + path_ + ":2: unknown key 'colour'\n$");
}

TEST_F(PlatformDeathTest, MissingFileEndsTheStartWithTheReason) {
    setenv("LDA_PLATFORM", path_.c_str(), 1);
    EXPECT_EXIT(qv::platform(), testing::ExitedWithCode(1),
                "^lda: " + path_ + ": cannot be read: No such file or directory\n$");
}

TEST(NoPlatformDeathTest, ProcessAbortsWithTheReason) {
    EXPECT_EXIT(qv::platform(), testing::KilledBySignal(SIGABRT),
                "^lda: no platform is installed\n$");
}

TEST_F(PlatformFile, WithoutAFileThereAreTwentyFourPorts) {
    unsetenv("LDA_PLATFORM");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    ASSERT_TRUE(qv::test::run_until(qv::loop_of(master), ports_complete));
    EXPECT_EQ(qv::platform().ports().ports().size(), 24u);
    EXPECT_NE(qv::platform().ports().find("swp24"), nullptr);
    qv_thread_master_finish(master);
}

// Most likely a variable of a start script that was not set: not a reason to simulate a switch.
TEST_F(PlatformDeathTest, EmptyVariableIsRefused) {
    setenv("LDA_PLATFORM", "", 1);
    EXPECT_EXIT(
        qv::platform(), testing::ExitedWithCode(1),
        "^lda: LDA_PLATFORM is set but empty: set it to the path of a platform file, or unset "
        "it to run on the simulated switch\n$");
}

TEST_F(PlatformFile, DescribedSwitchHasItsPorts) {
    describe("[embedded]\nports = 3\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    ASSERT_TRUE(qv::test::run_until(qv::loop_of(master), ports_complete));
    EXPECT_EQ(qv::platform().ports().ports().size(), 3u);
    qv_thread_master_finish(master);
}

TEST_F(PlatformFile, StoreIsTheDescribedOne) {
    describe("store = \"redis\"\n[redis]\nsocket = \"/nowhere/redis.sock\"\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    EXPECT_NE(dynamic_cast<qv::RedisStore*>(&qv::platform().store()), nullptr);
    qv_thread_master_finish(master);
}

TEST_F(PlatformFile, LeaseIsInRedisWithRecordsInRedisOnly) {
    describe("[role]\nmode = \"lease\"\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    EXPECT_EQ(qv::platform().lease(), nullptr);
    qv_thread_master_finish(master);
}

TEST_F(PlatformFile, SoloAgentWithRecordsInRedisHasNoLease) {
    describe("store = \"redis\"\n[redis]\nsocket = \"/nowhere/redis.sock\"\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    EXPECT_EQ(qv::platform().lease(), nullptr);
    qv_thread_master_finish(master);
}

TEST_F(PlatformFile, StandbyConnectsToTheStoreOnlyAsTheMaster) {
    qv::test::ScriptedServer server;
    describe("store = \"redis\"\n[role]\nmode = \"lease\"\n[redis]\nsocket = \"" + server.path() +
             "\"\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    EXPECT_NE(dynamic_cast<qv::RedisLease*>(qv::platform().lease()), nullptr);
    ASSERT_TRUE(qv::test::run_until(qv::loop_of(master), ports_complete));
    EXPECT_TRUE(server.accept().empty()) << "the records of the ports wait";
    qv::platform().become_master();
    EXPECT_FALSE(server.accept().empty());
    qv_mom_client* const late = qv_mom_client_init("LATE", master, nullptr);
    EXPECT_EQ(qv_mom_client_connect(late, QV_MOM_APP_DB, nullptr, nullptr), 0);
    EXPECT_FALSE(server.accept().empty()) << "the master's own clients do not wait";
    qv_thread_master_finish(master);
}

class LastAnswer final : public qv::ForwardingSink {
 public:
    void done(qv::ForwardingId id) override { text = "done " + std::to_string(id); }
    void failed(qv::ForwardingId id, int error) override {
        text = "failed " + std::to_string(id) + " " + std::to_string(error);
    }
    void counted(qv::ForwardingId, uint64_t, uint64_t) override {}

    std::string text;
};

TEST_F(PlatformFile, RuleIsForAPortOfTheSwitchOnly) {
    describe("[embedded]\nports = 3\n[clock]\nspeed = 10000.0\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    qv::EventLoop& loop = qv::loop_of(master);
    ASSERT_TRUE(qv::test::run_until(loop, ports_complete));
    LastAnswer answer;
    qv::platform().forwarding().start(answer);
    qv::platform().forwarding().install(1, 4, {});
    ASSERT_TRUE(qv::test::run_until(loop, [&] { return !answer.text.empty(); }));
    EXPECT_EQ(std::exchange(answer.text, ""), "failed 1 19");
    qv::platform().forwarding().install(2, 3, {});
    ASSERT_TRUE(qv::test::run_until(loop, [&] { return !answer.text.empty(); }));
    EXPECT_EQ(answer.text, "done 2");
    qv_thread_master_finish(master);
}

TEST_F(PlatformFile, ClockRunsAtTheDescribedSpeed) {
    describe("[clock]\nspeed = 10000.0\n");
    qv::Clock& clock = qv::platform().clock();
    EXPECT_LE(clock.real_time_until(clock.now() + std::chrono::seconds(10)),
              std::chrono::milliseconds(1));
}

std::vector<std::string> g_records;

int take_record(qv_mom_client*, const qv_mom_msg* message) {
    if (message->cmd == QV_MOM_CMD_RECORD) {
        const auto* record = reinterpret_cast<const PBridge__TarnLoopInfo*>(message->value);
        g_records.push_back("port " + std::to_string(record->index->ifx) + " vid " +
                            std::to_string(record->vid) + " loop " +
                            std::to_string(record->is_loop) + " source " +
                            std::to_string(record->src_ifx));
    }
    return 0;
}

int subscribe(void* client) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    PBridge__TarnLoopInfo key = P_BRIDGE__TARN_LOOP_INFO__INIT;
    key.index = &index;
    return qv_mom_subscribe(static_cast<qv_mom_client*>(client), QV_MOM_APP_DB, &key.base, 0,
                            take_record, nullptr);
}

TEST_F(PlatformFile, LoopOnAProbedPortBecomesARecordOfTheProbeProtocol) {
    describe("[embedded]\nports = 4\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    qv::EventLoop& loop = qv::loop_of(master);
    qv_mom_client* client = qv_mom_client_init("test", master, nullptr);
    ASSERT_EQ(qv_mom_client_connect(client, QV_MOM_APP_DB, subscribe, client), 0);
    ASSERT_TRUE(qv::test::run_until(loop, ports_complete));

    qv::cli::register_tarn_commands();
    qv::cli::SessionState config;
    config.mode = "config";
    qv::cli::SessionState port;
    port.mode = "interface";
    port.ifx = 3;
    qv::cli::SessionState exec;
    EXPECT_EQ(qv::cli::execute(config, "tarn enable").code, 0);
    EXPECT_EQ(qv::cli::execute(port, "tarn port loop-detect warning").code, 0);
    EXPECT_EQ(qv::cli::execute(exec, "test loop plug swp1 swp3").code, 0);
    ASSERT_TRUE(qv::test::run_until(loop, [] { return !g_records.empty(); }));
    EXPECT_EQ(qv::cli::execute(exec, "test loop unplug swp1 swp3").code, 0);
    ASSERT_TRUE(qv::test::run_until(loop, [] { return g_records.size() == 2; }));
    EXPECT_EQ(g_records, (std::vector<std::string>{"port 3 vid 1 loop 1 source 1",
                                                   "port 3 vid 1 loop 0 source 1"}));
    qv_thread_master_finish(master);
}

// Of the record that the store holds of port 3; none without one.
std::optional<uint32_t> stored_loop(const qv::MemoryStore& store) {
    const auto packed = store.get(QV_MOM_APP_DB, "p_bridge.tarn_loop_info/ifx=3");
    if (!packed) {
        return std::nullopt;
    }
    const std::vector<uint8_t> bytes(packed->begin(), packed->end());
    PBridge__TarnLoopInfo* const record =
        p_bridge__tarn_loop_info__unpack(nullptr, bytes.size(), bytes.data());
    const uint32_t is_loop = record->is_loop;
    p_bridge__tarn_loop_info__free_unpacked(record, nullptr);
    return is_loop;
}

TEST_F(PlatformFile, EndOfALoopIsRecordedOnceTheDatabaseIsBack) {
    describe("[embedded]\nports = 4\n[clock]\nspeed = 10000.0\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    qv::EventLoop& loop = qv::loop_of(master);
    auto& store = dynamic_cast<qv::MemoryStore&>(qv::platform().store());
    ASSERT_TRUE(qv::test::run_until(loop, ports_complete));
    qv::cli::register_tarn_commands();
    qv::cli::SessionState config;
    config.mode = "config";
    qv::cli::SessionState port;
    port.mode = "interface";
    port.ifx = 3;
    qv::cli::SessionState exec;
    EXPECT_EQ(qv::cli::execute(config, "tarn enable").code, 0);
    EXPECT_EQ(qv::cli::execute(port, "tarn port loop-detect warning").code, 0);
    EXPECT_EQ(qv::cli::execute(exec, "test loop plug swp1 swp3").code, 0);
    ASSERT_TRUE(qv::test::run_until(loop, [&] { return stored_loop(store) == 1u; }));
    store.drop(QV_MOM_APP_DB);
    EXPECT_EQ(qv::cli::execute(exec, "test loop unplug swp1 swp3").code, 0);
    store.restore(QV_MOM_APP_DB);
    EXPECT_TRUE(qv::test::run_until(loop, [&] { return stored_loop(store) == 0u; }));
    qv_thread_master_finish(master);
}

// Lines of the table that "show tarn" prints, without times.
std::vector<std::string> tarn_rows(qv::cli::SessionState& session) {
    const std::string text = qv::cli::execute(session, "show tarn").output;
    std::vector<std::string> rows;
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);  // the heading
    while (std::getline(lines, line)) {
        line = std::regex_replace(line, std::regex("[0-9]{4}-[0-9-]+ [0-9:]+ "), "");
        rows.push_back(std::regex_replace(line, std::regex(" +"), " "));
    }
    return rows;
}

TEST_F(PlatformFile, SimulatedSwitchShowsAndRecordsItsPorts) {
    describe("[embedded]\nports = 2\n[clock]\nspeed = 100.0\n");
    qv_thread_master* const master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    qv::EventLoop& loop = qv::loop_of(master);
    const auto& store = dynamic_cast<qv::MemoryStore&>(qv::platform().store());
    ASSERT_TRUE(qv::test::run_until(loop, ports_complete));
    qv::cli::register_tarn_commands();
    qv::cli::register_show_tarn();
    qv::cli::SessionState exec;
    const auto shows = [&](const std::vector<std::string>& rows) {
        return qv::test::run_until(loop, [&] { return tarn_rows(exec) == rows; });
    };
    EXPECT_TRUE(shows({"swp1 off access - - - - - - -", "swp2 off access - - - - - - -"}));

    qv::cli::SessionState config;
    config.mode = "config";
    EXPECT_EQ(qv::cli::execute(config, "tarn enable").code, 0);
    EXPECT_EQ(qv::cli::execute(config, "tarn cut one").code, 0);
    for (const uint32_t ifx : {1, 2}) {
        qv::cli::SessionState port;
        port.mode = "interface";
        port.ifx = ifx;
        EXPECT_EQ(qv::cli::execute(port, "tarn port loop-detect warning").code, 0);
    }
    EXPECT_TRUE(shows({"swp1 probing access - - - - - - -", "swp2 probing access - - - - - - -"}));
    EXPECT_EQ(qv::cli::execute(exec, "test loop plug swp1 swp2").code, 0);
    EXPECT_TRUE(
        shows({"swp1 probing access - - - - - - -", "swp2 looped access - swp2 swp2 1 0 carrier"}));
    EXPECT_FALSE(store.get(QV_MOM_APP_DB, "p_bridge.tarn_loop_info/ifx=1").has_value());
    EXPECT_TRUE(store.get(QV_MOM_APP_DB, "p_bridge.tarn_port_state/ifx=2").has_value());
    EXPECT_TRUE(store.get(QV_MOM_APP_DB, "p_bridge.tarn_counters/").has_value());
    EXPECT_EQ(qv::cli::execute(exec, "test port delete swp2").code, 0);
    EXPECT_TRUE(shows({"swp1 probing access - - - - - - -"}));
    EXPECT_FALSE(store.get(QV_MOM_APP_DB, "p_bridge.tarn_port_state/ifx=2").has_value());
    qv_thread_master_finish(master);
}

}  // namespace
