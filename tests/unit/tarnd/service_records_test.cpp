// The service's records: loops of a port in several VLANs, and configuration that does not unpack.
#include <utility>

#include "tests/unit/tarnd/service_rig.h"

namespace qv::tarnd {
namespace {

using test::ServiceRig;
using Lines = std::vector<std::string>;
using std::chrono::seconds;

constexpr uint32_t kPort = 1000007, kOther = 1000008,
                   kThird = 1000009;  // no interfaces of this machine

Report loop(uint32_t src_ifx, uint16_t src_vid, uint16_t vid) {
    return {.kind = Report::Kind::kLoop,
            .ifx = kPort,
            .src_ifx = src_ifx,
            .vid = vid,
            .src_vid = src_vid};
}
Report end(uint32_t src_ifx, uint16_t src_vid, uint16_t vid) {
    Report report = loop(src_ifx, src_vid, vid);
    report.kind = Report::Kind::kEnd;
    return report;
}

std::string line_of(const PBridge__TarnLoopInfo& info) {
    return "ifx=" + std::to_string(info.index->ifx) + " vid=" + std::to_string(info.vid) +
           " loop=" + std::to_string(info.is_loop) + " src=" + std::to_string(info.src_ifx);
}

// The records that the service has set, in order.
Lines& set_records() {
    static auto& lines = *new Lines;
    return lines;
}

}  // namespace
}  // namespace qv::tarnd

extern "C" {

int __real_qv_mom_set(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
                      int reserved, const ProtobufCMessageDescriptor* descriptor);
int __wrap_qv_mom_set(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int flags,
                      int reserved, const ProtobufCMessageDescriptor* descriptor) {
    const int result = __real_qv_mom_set(client, db, record, flags, reserved, descriptor);
    if (result == 0 && record->descriptor == &p_bridge__tarn_loop_info__descriptor) {
        qv::tarnd::set_records().push_back(
            qv::tarnd::line_of(*reinterpret_cast<const PBridge__TarnLoopInfo*>(record)));
    }
    return result;
}

}  // extern "C"

namespace qv::tarnd {
namespace {

struct ServiceRecords : testing::Test {
    ServiceRecords() { take_set(); }

    static Lines take_set() { return std::exchange(set_records(), {}); }
    // Loop records in the database.
    Lines records() {
        MemoryStore& store = rig.platform.memory_store();
        Lines lines;
        for (const std::string& key : store.keys(QV_MOM_APP_DB, "p_bridge.tarn_loop_info/*")) {
            const std::string packed = store.get(QV_MOM_APP_DB, key).value();
            PBridge__TarnLoopInfo* const info = p_bridge__tarn_loop_info__unpack(
                nullptr, packed.size(), reinterpret_cast<const uint8_t*>(packed.data()));
            lines.push_back(line_of(*info));
            p_bridge__tarn_loop_info__free_unpacked(info, nullptr);
        }
        return lines;
    }
    // The database is away while the probing thread reports these.
    void report_while_away(const std::vector<Report>& made) {
        rig.platform.memory_store().drop(QV_MOM_APP_DB);
        rig.report(made);
        rig.platform.memory_store().restore(QV_MOM_APP_DB);
        rig.platform.run_ready();
    }

    ServiceRig rig;
};

TEST_F(ServiceRecords, PortThatIsLoopedInSeveralVlansHasOneRecordUntilTheLastOneEnds) {
    rig.report({loop(kOther, 10, 10)});
    EXPECT_EQ(take_set(), Lines{"ifx=1000007 vid=10 loop=1 src=1000008"});
    rig.report({loop(kOther, 20, 20), loop(kOther, 0, 0)});
    EXPECT_EQ(take_set(), (Lines{"ifx=1000007 vid=20 loop=1 src=1000008",
                                 "ifx=1000007 vid=1 loop=1 src=1000008"}));
    EXPECT_EQ(records(), Lines{"ifx=1000007 vid=1 loop=1 src=1000008"});
    rig.report({end(kOther, 0, 0)});
    EXPECT_EQ(take_set(), Lines{"ifx=1000007 vid=10 loop=1 src=1000008"});
    rig.report({end(kOther, 10, 10)});
    EXPECT_EQ(take_set(), Lines{"ifx=1000007 vid=20 loop=1 src=1000008"});
    rig.report({end(kOther, 20, 20)});
    EXPECT_EQ(take_set(), Lines{"ifx=1000007 vid=20 loop=0 src=1000008"});
    rig.platform.run_for(seconds(60));
    EXPECT_EQ(take_set(), Lines{});
    EXPECT_EQ(records(), Lines{"ifx=1000007 vid=20 loop=0 src=1000008"});
}

TEST_F(ServiceRecords, EndBehindOnePortLeavesTheLoopBehindAnother) {
    rig.report({loop(kOther, 10, 10), loop(kThird, 20, 21)});
    EXPECT_EQ(take_set(), (Lines{"ifx=1000007 vid=10 loop=1 src=1000008",
                                 "ifx=1000007 vid=21 loop=1 src=1000009"}));
    rig.report({end(kThird, 20, 21)});
    EXPECT_EQ(take_set(), (Lines{"ifx=1000007 vid=21 loop=0 src=1000009",
                                 "ifx=1000007 vid=10 loop=1 src=1000008"}));
    rig.report({end(kOther, 10, 10)});
    EXPECT_EQ(take_set(), Lines{"ifx=1000007 vid=10 loop=0 src=1000008"});
}

TEST_F(ServiceRecords, LoopsInAllVlansAreSetAgainEveryTenSeconds) {
    rig.report({loop(kOther, 10, 10), loop(kOther, 20, 20), loop(kThird, 30, 30)});
    take_set();
    rig.platform.run_for(seconds(10));
    EXPECT_EQ(take_set(), (Lines{"ifx=1000007 vid=10 loop=1 src=1000008",
                                 "ifx=1000007 vid=30 loop=1 src=1000009"}));
}

TEST_F(ServiceRecords, LoopsInAllVlansAreWithdrawnAtTheEnd) {
    rig.report({loop(kOther, 10, 10), loop(kThird, 20, 20), loop(kOther, 30, 30)});
    take_set();
    rig.service.close();
    EXPECT_EQ(take_set(), (Lines{"ifx=1000007 vid=10 loop=0 src=1000008",
                                 "ifx=1000007 vid=20 loop=0 src=1000009"}));
}

TEST_F(ServiceRecords, EveryEndFollowsWhenTheDatabaseIsBack) {
    rig.report({loop(kOther, 10, 10), loop(kThird, 20, 20)});
    take_set();
    report_while_away({end(kOther, 10, 10), end(kThird, 20, 20)});
    EXPECT_EQ(take_set(), (Lines{"ifx=1000007 vid=10 loop=0 src=1000008",
                                 "ifx=1000007 vid=20 loop=0 src=1000009"}));
    EXPECT_EQ(records(), Lines{"ifx=1000007 vid=20 loop=0 src=1000009"});
}

TEST_F(ServiceRecords, LoopFollowsWhenTheDatabaseIsBack) {
    rig.report({loop(kOther, 10, 10)});
    take_set();
    report_while_away({end(kOther, 10, 10), loop(kThird, 20, 20)});
    EXPECT_EQ(records(), Lines{"ifx=1000007 vid=20 loop=1 src=1000009"});
}

struct ServiceConfiguration : testing::Test {
    void put_port(bool shut) {
        PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
        index.ifx = kPort;
        PBridge__TarnPort port = P_BRIDGE__TARN_PORT__INIT;
        port.index = &index;
        port.loop_detect = 1;
        port.shut = shut ? 1 : 0;
        put("p_bridge.tarn_port/ifx=1000007", port.base);
    }
    // Another program writes the record.
    void put(const std::string& key, const std::string& packed) {
        rig.platform.memory_store().put(
            QV_MOM_CFG_DB, key, {reinterpret_cast<const uint8_t*>(packed.data()), packed.size()});
        rig.platform.run_ready();
    }
    void put(const std::string& key, const ProtobufCMessage& record) {
        std::string packed(protobuf_c_message_get_packed_size(&record), '\0');
        protobuf_c_message_pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
        put(key, packed);
    }
    static std::vector<Command> take_commands() { return std::exchange(test::commands(), {}); }

    ServiceRig rig;
};

TEST_F(ServiceConfiguration, RecordsThatDoNotUnpackLeaveTheEarlierOnesInForce) {
    PBridge__TarnConfig config = P_BRIDGE__TARN_CONFIG__INIT;
    config.enabled = 1;
    config.probe_interval_ms = 250;
    PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
    index.ifx = kPort;
    PBridge__TarnPort port = P_BRIDGE__TARN_PORT__INIT;
    port.index = &index;
    port.loop_detect = 1;
    port.vlan_mode = 1;
    PApp__LdaNcPolicy policy = P_APP__LDA_NC_POLICY__INIT;
    policy.loop_policy_cli = 4;
    put("p_bridge.tarn_config/", config.base);
    put("p_bridge.tarn_port/ifx=1000007", port.base);
    put("p_app.lda_nc_policy/", policy.base);
    const auto set_up = take_commands();
    ASSERT_EQ(set_up.size(), 3u);  // settings, the port, and the port under the policy
    EXPECT_TRUE(set_up.front().settings.enabled);
    EXPECT_EQ(set_up.front().settings.interval, std::chrono::milliseconds(250));
    EXPECT_TRUE(set_up.back().watched && set_up.back().shuts);

    put("p_bridge.tarn_config/", "\xff\xff\xff");
    rig.platform.run_for(seconds(1));
    put("p_bridge.tarn_port/ifx=1000007", "\x2a\x7f");
    rig.platform.run_for(seconds(1));
    put("p_app.lda_nc_policy/", "\x01");
    EXPECT_EQ(
        rig.take_log(),
        (Lines{"MOM-4-BAD_RECORD: Record of p_bridge.tarn_config in database 22 dropped: 3 bytes "
               "do not unpack.",
               "MOM-4-BAD_RECORD: Record of p_bridge.tarn_port in database 22 dropped: 2 bytes do "
               "not unpack.",
               "MOM-4-BAD_RECORD: Record of p_app.lda_nc_policy in database 22 dropped: 1 bytes do "
               "not unpack."}));
    rig.platform.run_for(seconds(60));
    EXPECT_EQ(take_commands().size(), 0u);
    EXPECT_EQ(rig.take_log(), Lines{});
}

TEST_F(ServiceConfiguration, RecordOfNoPortIsLeftOut) {
    PBridge__TarnPort port = P_BRIDGE__TARN_PORT__INIT;
    port.loop_detect = 1;
    put("p_bridge.tarn_port/", port.base);
    PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
    port.index = &index;
    put("p_bridge.tarn_port/ifx=0", port.base);
    EXPECT_EQ(take_commands().size(), 0u);
}

// The switch has opened a port that it had shut, and its record does not say so yet.
TEST_F(ServiceConfiguration, CutOfAPortThatItsRecordStillCallsShutIsGivenBack) {
    put_port(true);
    ASSERT_TRUE(rig.cuts.note(kPort));
    rig.report({{.kind = Report::Kind::kCut, .ifx = kPort}});
    put_port(false);
    EXPECT_EQ(rig.cuts.noted(), std::vector<uint32_t>{kPort});
    rig.platform.run_for(seconds(7));
    EXPECT_EQ(rig.cuts.noted(), std::vector<uint32_t>{});
}

TEST_F(ServiceConfiguration, CutOfAPortThatTheSwitchHasShutBeforeIsItsOwn) {
    put_port(true);
    test::kernel().links[kPort].up = false;
    ASSERT_TRUE(rig.cuts.note(kPort));
    rig.report({{.kind = Report::Kind::kCut, .ifx = kPort}});
    rig.platform.run_for(seconds(7));
    EXPECT_EQ(rig.cuts.noted(), std::vector<uint32_t>{});
    EXPECT_FALSE(test::kernel().links[kPort].up);
}

TEST_F(ServiceConfiguration, CutOfAPortThatTheSwitchHasShutIsLeftToTheNextProcessAtTheEnd) {
    put_port(true);
    test::kernel().links[kPort].up = false;
    ASSERT_TRUE(rig.cuts.note(kPort));
    rig.report({{.kind = Report::Kind::kCut, .ifx = kPort}});
    rig.service.close();
    EXPECT_EQ(rig.cuts.noted(), std::vector<uint32_t>{kPort});
    EXPECT_FALSE(test::kernel().links[kPort].up);
}

}  // namespace
}  // namespace qv::tarnd
