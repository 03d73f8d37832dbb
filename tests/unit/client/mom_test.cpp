// qv/mom.h on both stores.
#include <cerrno>

#include "tests/support/store_fixture.h"

namespace store_test {
namespace {

using namespace std::string_literals;

// Entry of "swp1", policy 1, src_port true: fields 5, 6 and 7.
const std::string kPackedEntry = "\x2a\x06\x0a\x04swp1\x30\x01\x38\x01"s;

TEST_P(Store, SecondInitReturnsTheCurrentClient) {
    EXPECT_EQ(qv_mom_client_init("TEST", master, client), client);
    EXPECT_EQ(qv_mom_client_init(nullptr, master, nullptr), nullptr);
    EXPECT_EQ(qv_mom_client_init("TEST", nullptr, nullptr), nullptr);
}

TEST_P(Store, ConnectIsReportedThroughTheLoop) {
    qv_mom_client_connect(client, 4, on_up, nullptr);
    EXPECT_EQ(g_heard, Lines{});
    expect_heard("up");
    EXPECT_EQ(g_heard, Lines{"up"});
}

TEST_P(Store, ConnectToASessionThatIsUpIsReportedToo) {
    open(4);
    g_heard.clear();
    EXPECT_EQ(qv_mom_client_connect(client, 4, on_up, nullptr), 0);
    EXPECT_EQ(g_heard, Lines{});
    expect_heard("up");
    EXPECT_EQ(g_heard, Lines{"up"});
}

TEST_P(Store, ReturnIsReportedToAClientThatDidNotAskForTheStart) {
    qv_mom_client_connect(client, 4, nullptr, nullptr);
    qv_mom_client_set_reconnect_cb(client, 4, on_back, nullptr);
    qv_mom_client_set_disconnect_cb(client, 4, on_down, nullptr);
    settle();
    world->lose();
    expect_heard("down");
    world->restore();
    expect_heard("back");
    EXPECT_EQ(g_heard, (Lines{"down", "back"}));
}

TEST_P(Store, ServerThatIsAwayAtStartIsWaitedFor) {
    world->lose();
    qv_mom_client_connect(client, 4, on_up, nullptr);
    qv_mom_client_set_reconnect_cb(client, 4, on_back, nullptr);
    EXPECT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), ENOTCONN);
    world->restore();
    expect_heard("up");
    EXPECT_EQ(g_heard, Lines{"up"});
}

TEST_P(Store, RecordIsKeptUnderItsKeyTextInItsDatabase) {
    open(4);
    open(22);
    const LoopEntry entry("swp1", 1, true);
    EXPECT_EQ(qv_mom_set(client, 4, entry.record(), 0, 0), 0);
    PApp__LdaNcPolicy policy = P_APP__LDA_NC_POLICY__INIT;
    policy.loop_policy_cli = 2;
    EXPECT_EQ(qv_mom_set(client, 22, &policy.base, 0, 0, &p_app__lda_nc_policy__descriptor), 0);
    settle();
    EXPECT_EQ(world->keys(4), Lines{"p_app.lda_loop_entry/name=swp1"});
    EXPECT_EQ(world->get(4, "p_app.lda_loop_entry/name=swp1"), Lines{kPackedEntry});
    EXPECT_EQ(world->keys(22), Lines{"p_app.lda_nc_policy/"});
    EXPECT_EQ(world->get(22, "p_app.lda_nc_policy/"), Lines{"\x28\x02"});
}

TEST_P(Store, SettingTwiceReplacesTheRecord) {
    open(4);
    qv_mom_set(client, 4, LoopEntry("swp1", 0, false).record(), 0, 0);
    qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0);
    settle();
    EXPECT_EQ(world->keys(4), Lines{"p_app.lda_loop_entry/name=swp1"});
    EXPECT_EQ(world->get(4, "p_app.lda_loop_entry/name=swp1"), Lines{kPackedEntry});
}

TEST_P(Store, SubscriptionIsConfirmedThroughTheLoopWithoutARecord) {
    open(4);
    const LoopInfo key(0, 0, 0, 0);
    EXPECT_EQ(qv_mom_subscribe(client, 4, key.record(), 0, on_loop_info, nullptr), 0);
    EXPECT_EQ(g_heard, Lines{});
    expect_heard("29/0/4");
    EXPECT_EQ(g_heard, Lines{"29/0/4"});
}

TEST_P(Store, SubscribingAgainConfirmsAgainAndDeliversOnce) {
    open(4);
    const LoopInfo key(0, 0, 0, 0);
    qv_mom_subscribe(client, 4, key.record(), 0, on_loop_info, nullptr);
    qv_mom_subscribe(client, 4, key.record(), 0, on_loop_info, nullptr);
    settle();
    EXPECT_EQ(take_events(), (Lines{"29/0/4", "29/0/4"}));
    qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    settle();
    EXPECT_EQ(g_heard, Lines{"1/0/4 ifx=7 vid=1 loop=1 src=8"});
}

TEST_P(Store, SetDeleteAndPublishReachTheOwnSubscriber) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    EXPECT_EQ(qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0), 0);
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(qv_mom_del(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0), 0);
    EXPECT_EQ(qv_mom_publish(client, 4, LoopInfo(9, 0, 1, 9).record(), 0, 0), 0);
    settle();
    EXPECT_EQ(g_heard, (Lines{"1/0/4 ifx=7 vid=1 loop=1 src=8", "1/1/4 ifx=7 vid=0 loop=0 src=0",
                              "1/2/4 ifx=9 vid=0 loop=1 src=9"}));
    EXPECT_EQ(world->keys(4), Lines{});
}

TEST_P(Store, RecordOfAnotherProgramIsDelivered) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("29/0/4");
    // index {ifx 7}, vid 1, is_loop 1, src_ifx 8
    world->put(4, "p_bridge.tarn_loop_info/ifx=7", "\x2a\x02\x08\x07\x30\x01\x38\x01\x40\x08");
    expect_heard("1/0/4 ifx=7 vid=1 loop=1 src=8");
}

TEST_P(Store, DatabasesAndTypesAreApart) {
    open(22);
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    qv_mom_set(client, 22, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0);
    settle();
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(world->keys(22), Lines{"p_bridge.tarn_loop_info/ifx=7"});
    EXPECT_EQ(world->keys(4), Lines{"p_app.lda_loop_entry/name=swp1"});
}

TEST_P(Store, DeletingAMissingRecordIsNotAnError) {
    open(4);
    EXPECT_EQ(qv_mom_del(client, 4, LoopEntry("swp1", 0, false).record(), 0, 0), 0);
    settle();
    EXPECT_EQ(world->keys(4), Lines{});
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_P(Store, DeleteWithAnEmptyKeyRemovesTheTypeAndReportsEach) {
    open(4);
    qv_mom_subscribe(client, 4, LoopEntry("", 0, false).record(), 0, on_loop_entry, nullptr);
    qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0);
    qv_mom_set(client, 4, LoopEntry("swp*", 0, true).record(), 0, 0);
    qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    settle();
    g_heard.clear();
    EXPECT_EQ(qv_mom_pdel(client, 4, LoopEntry("", 0, false).record(), 0, 0, 0), 0);
    settle();
    Lines heard = take_events();
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, (Lines{"1/1/4 swp* policy=0 src=1", "1/1/4 swp1 policy=1 src=1"}));
    EXPECT_EQ(world->keys(4), Lines{"p_bridge.tarn_loop_info/ifx=7"});
}

TEST_P(Store, DeleteWithAPartOfTheKeyRemovesMatchingRecords) {
    open(22);
    qv_mom_set(client, 22, Operate("a", 2, 1).record(), 0, 0);
    qv_mom_set(client, 22, Operate("a", 3, 2).record(), 0, 0);
    qv_mom_set(client, 22, Operate("a*", 2, 3).record(), 0, 0);
    qv_mom_set(client, 22, Operate("ab", 2, 4).record(), 0, 0);
    EXPECT_EQ(qv_mom_pdel(client, 22, Operate("a*", 0, 0).record(), 0, 0, 0), 0);
    settle();
    EXPECT_EQ(world->keys(22), (Lines{"p_mng.ui_operate/publisher=a,type=2,oid=1",
                                      "p_mng.ui_operate/publisher=a,type=3,oid=2",
                                      "p_mng.ui_operate/publisher=ab,type=2,oid=4"}));
    EXPECT_EQ(qv_mom_pdel(client, 22, Operate("", 2, 0).record(), 0, 0, 0), 0);
    settle();
    EXPECT_EQ(world->keys(22), Lines{"p_mng.ui_operate/publisher=a,type=3,oid=2"});
}

TEST_P(Store, RecordSetRightAfterABulkDeleteStays) {
    open(4);
    qv_mom_set(client, 4, LoopEntry("swp2", 1, true).record(), 0, 0);
    qv_mom_pdel(client, 4, LoopEntry("", 0, false).record(), 0, 0, 0);
    qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0);
    settle();
    EXPECT_EQ(world->keys(4), Lines{"p_app.lda_loop_entry/name=swp1"});
}

TEST_P(Store, ScanDeliversExistingRecordsThroughTheLoop) {
    open(4);
    world->put(4, "p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 8).packed());
    world->put(4, "p_bridge.tarn_loop_info/ifx=9", LoopInfo(9, 2, 0, 9).packed());
    world->put(4, "p_bridge.tarn_loop_information/ifx=1", "something else");
    EXPECT_EQ(qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr), 0);
    EXPECT_EQ(g_heard, Lines{});
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 2; }));
    settle();
    Lines heard = take_events();
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, (Lines{"1/0/4 ifx=7 vid=1 loop=1 src=8", "1/0/4 ifx=9 vid=2 loop=0 src=9"}));
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_P(Store, ScanOfFiveThousandRecordsDeliversEach) {
    open(4);
    for (uint32_t ifx = 1; ifx <= 5000; ifx++) {
        ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(ifx, 1, 1, ifx).record(), 0, 0), 0);
    }
    settle();
    qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    world->run_until([] { return g_heard.size() >= 5000; });
    Lines heard = take_events();
    std::sort(heard.begin(), heard.end());
    heard.erase(std::unique(heard.begin(), heard.end()), heard.end());
    EXPECT_EQ(heard.size(), 5000U);
}

TEST_P(Store, TenThousandNoticesArriveInOrder) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("29/0/4");
    g_heard.clear();
    for (uint32_t n = 0; n < 10000; n++) {
        ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(n % 100, n, 1, 0).record(), 0, 0), 0);
    }
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 10000; }));
    EXPECT_EQ(g_heard[4321], "1/0/4 ifx=21 vid=4321 loop=1 src=0");
    EXPECT_EQ(g_heard[9999], "1/0/4 ifx=99 vid=9999 loop=1 src=0");
}

TEST_P(Store, LossIsReportedAndRequestsFailUntilTheReturn) {
    open(4);
    const LoopInfo info(7, 1, 1, 8);
    world->lose();
    expect_heard("down");
    EXPECT_EQ(qv_mom_set(client, 4, info.record(), 0, 0), ENOTCONN);
    EXPECT_EQ(qv_mom_del(client, 4, info.record(), 0, 0), ENOTCONN);
    EXPECT_EQ(qv_mom_pdel(client, 4, info.record(), 0, 0, 0), ENOTCONN);
    EXPECT_EQ(qv_mom_publish(client, 4, info.record(), 0, 0), ENOTCONN);
    EXPECT_EQ(qv_mom_subscribe(client, 4, info.record(), 0, on_loop_info, nullptr), ENOTCONN);
    EXPECT_EQ(qv_mom_scan(client, 4, info.record(), 0, on_loop_info, nullptr), ENOTCONN);
    world->restore();
    expect_heard("back");
    EXPECT_EQ(qv_mom_set(client, 4, info.record(), 0, 0), 0);
    settle();
    EXPECT_EQ(take_events(), (Lines{"down", "back"}));
}

TEST_P(Store, LossForgetsTheSubscription) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("29/0/4");
    world->lose();
    expect_heard("down");
    world->restore();
    expect_heard("back");
    qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    settle();
    EXPECT_EQ(take_events(), (Lines{"29/0/4", "down", "back"}));
}

// The agent's way: subscribe again on reconnect, scan on the confirmation.
int subscribe_again(void* arg) {
    const LoopInfo key(0, 0, 0, 0);
    qv_mom_subscribe(
        static_cast<qv_mom_client*>(arg), 4, key.record(), 0,
        [](qv_mom_client* client, const qv_mom_msg* message) {
            if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
                const LoopInfo all(0, 0, 0, 0);
                qv_mom_scan(client, message->db, all.record(), 0, on_loop_info, nullptr);
            }
            return on_loop_info(client, message);
        },
        nullptr);
    return 0;
}

TEST_P(Store, NothingIsLostOverALossOfTheServer) {
    open(4);
    qv_mom_client_set_reconnect_cb(client, 4, subscribe_again, client);
    subscribe_again(client);
    expect_heard("29/0/4");
    world->lose();
    expect_heard("down");
    world->restore();
    world->put(4, "p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 8).packed());
    expect_heard("1/0/4 ifx=7 vid=1 loop=1 src=8");
    EXPECT_EQ(g_heard[2], "29/0/4");
}

TEST_P(Store, RecordThatDoesNotUnpackIsLoggedAndDropped) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    world->put(4, "p_bridge.tarn_loop_info/ifx=7", "\xff\xff\xff");
    world->put(4, "p_bridge.tarn_loop_info/ifx=8", LoopInfo(8, 1, 1, 8).packed());
    settle();
    EXPECT_EQ(take_events(), Lines{"1/0/4 ifx=8 vid=1 loop=1 src=8"});
    pass(std::chrono::seconds(1));
    qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("1/0/4 ifx=8 vid=1 loop=1 src=8");
    settle();
    EXPECT_EQ(take_events(), Lines{"1/0/4 ifx=8 vid=1 loop=1 src=8"});
    EXPECT_EQ(platform.log.lines(),
              (Lines{"MOM-4-BAD_RECORD: Record of p_bridge.tarn_loop_info in database 4 dropped: 3 "
                     "bytes do not unpack.",
                     "MOM-4-BAD_RECORD: Record of p_bridge.tarn_loop_info in database 4 dropped: 3 "
                     "bytes do not unpack."}));
}

TEST_P(Store, NoticeWithoutAKnownOperationIsLoggedAndDropped) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    world->notify(4, "p_bridge.tarn_loop_info", "");
    settle();
    pass(std::chrono::seconds(1));
    world->notify(4, "p_bridge.tarn_loop_info", "\x03\x2a\x02\x08\x07");
    settle();
    EXPECT_EQ(take_events(), Lines{});
    EXPECT_EQ(platform.log.lines(), (Lines{"MOM-4-BAD_NOTICE: Notice of p_bridge.tarn_loop_info in "
                                           "database 4 dropped: no known operation.",
                                           "MOM-4-BAD_NOTICE: Notice of p_bridge.tarn_loop_info in "
                                           "database 4 dropped: no known operation."}));
}

// Whose clock only the test moves.
class MemoryOnly : public Store {};

TEST_P(MemoryOnly, InvalidRecordsAreLoggedOnceASecondWithTheNumberOfTheOthers) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    for (int i = 0; i < 50; i++) {
        world->notify(4, "p_bridge.tarn_loop_info", std::string("\0\xff", 2));
        world->notify(4, "p_bridge.tarn_loop_info", "");
    }
    settle();
    Lines expected = {
        "MOM-4-BAD_RECORD: Record of p_bridge.tarn_loop_info in database 4 dropped: 1 bytes do "
        "not unpack."};
    EXPECT_EQ(platform.log.lines(), expected);
    platform.run_for(std::chrono::milliseconds(999));
    EXPECT_EQ(platform.log.lines(), expected);
    platform.run_for(std::chrono::milliseconds(1));
    expected.push_back(
        "MOM-4-BAD_REPEATED: 99 more invalid records or notices were dropped in the last second.");
    EXPECT_EQ(platform.log.lines(), expected);

    world->notify(4, "p_bridge.tarn_loop_info", "");
    settle();
    EXPECT_EQ(platform.log.lines(), expected) << "the number was a line, too";
    platform.run_for(std::chrono::seconds(1));
    expected.push_back(
        "MOM-4-BAD_REPEATED: 1 more invalid records or notices were dropped in the last second.");
    EXPECT_EQ(platform.log.lines(), expected);
    platform.run_for(std::chrono::seconds(10));
    EXPECT_EQ(platform.log.lines(), expected);

    world->notify(4, "p_bridge.tarn_loop_info", "");
    settle();
    expected.push_back(
        "MOM-4-BAD_NOTICE: Notice of p_bridge.tarn_loop_info in database 4 dropped: no known "
        "operation.");
    EXPECT_EQ(platform.log.lines(), expected);
}

TEST_P(Store, NoticeAbove64KiBIsDroppedThoughItsRecordIsValid) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    // A field that this type does not know fills the record: its tag, its length of three bytes.
    const std::string record = std::string(1, '\0') + LoopInfo(7, 1, 1, 8).packed();
    const auto padded = [&](size_t size) {
        const size_t rest = size - record.size() - 5;
        const std::string head = {'\xfa', '\x01', static_cast<char>(0x80 | (rest & 0x7f)),
                                  static_cast<char>(0x80 | (rest >> 7 & 0x7f)),
                                  static_cast<char>(rest >> 14)};
        return record + head + std::string(rest, 'x');
    };
    world->notify(4, "p_bridge.tarn_loop_info", padded(65536));
    world->notify(4, "p_bridge.tarn_loop_info", padded(65537));
    settle();
    EXPECT_EQ(take_events(), Lines{"1/0/4 ifx=7 vid=1 loop=1 src=8"});
    EXPECT_EQ(platform.log.lines(), Lines{"MOM-4-BAD_NOTICE: Notice of p_bridge.tarn_loop_info in "
                                          "database 4 dropped: 65537 bytes are too many."});
}

TEST_P(Store, RecordWithoutItsIndexIsDelivered) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("29/0/4");
    world->put(4, "p_bridge.tarn_loop_info/", "\x38\x01");
    expect_heard("1/0/4 no index vid=0 loop=1 src=0");
}

TEST_P(Store, RecordOfATypeThatNobodyKnowsHarmsNobody) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    world->put(4, "p_other.thing/name=x", "\x0a\x01x");
    world->notify(4, "p_other.thing", "\0\x0a\x01x"s);
    settle();
    EXPECT_EQ(take_events(), Lines{});
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_P(Store, BadCallsAreRefused) {
    open(4);
    const PBridge__TarnLoopInfo no_index = P_BRIDGE__TARN_LOOP_INFO__INIT;
    const LoopInfo info(7, 1, 1, 8);
    EXPECT_EQ(qv_mom_set(client, 4, &no_index.base, 0, 0), EINVAL);
    EXPECT_EQ(qv_mom_del(client, 4, &no_index.base, 0, 0), EINVAL);
    EXPECT_EQ(qv_mom_pdel(client, 4, &no_index.base, 0, 0, 0), EINVAL);
    EXPECT_EQ(qv_mom_set(client, 4, nullptr, 0, 0), EINVAL);
    EXPECT_EQ(qv_mom_set(nullptr, 4, info.record(), 0, 0), EINVAL);
    EXPECT_EQ(qv_mom_set(client, 4, info.record(), 0, 0, &p_app__lda_nc_policy__descriptor),
              EINVAL);
    EXPECT_EQ(qv_mom_subscribe(client, 4, info.record(), 0, nullptr, nullptr), EINVAL);
    EXPECT_EQ(qv_mom_client_connect(nullptr, 4, on_up, nullptr), EINVAL);
    EXPECT_EQ(qv_mom_set(client, 5, info.record(), 0, 0), ENOTCONN) << "never opened";
}

TEST_P(Store, CallbackMaySubscribeScanAndSet) {
    open(4);
    const LoopInfo key(0, 0, 0, 0);
    qv_mom_subscribe(
        client, 4, key.record(), 0,
        [](qv_mom_client* inner, const qv_mom_msg* message) {
            on_loop_info(inner, message);
            if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
                qv_mom_set(inner, 4, LoopInfo(1, 1, 1, 1).record(), 0, 0);
            } else {
                const LoopInfo all(0, 0, 0, 0);
                qv_mom_subscribe(inner, 4, all.record(), 0, on_loop_info, nullptr);
                qv_mom_scan(inner, 4, all.record(), 0, on_loop_info, nullptr);
            }
            return 0;
        },
        nullptr);
    ASSERT_TRUE(world->run_until([] { return g_heard.size() >= 4; }));
    settle();
    Lines heard = take_events();
    std::sort(heard.begin() + 2, heard.end());
    EXPECT_EQ(heard, (Lines{"29/0/4", "1/0/4 ifx=1 vid=1 loop=1 src=1",
                            "1/0/4 ifx=1 vid=1 loop=1 src=1", "29/0/4"}));
}

INSTANTIATE_TEST_SUITE_P(Memory, MemoryOnly, testing::Values("memory"));

INSTANTIATE_TEST_SUITE_P(Both, Store, testing::Values("memory", "redis"),
                         [](const auto& store) { return std::string(store.param); });

}  // namespace
}  // namespace store_test
