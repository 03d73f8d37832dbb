// The dumps of records and statistics.
#include <cstring>

#include "tests/unit/storm/storm_fixture.h"

namespace {

const std::string kHeader =
    "ifx   intf_name     phyid     rate      burst     packet_count   byte_count   "
    "flow_over_times   unloop_times   poll_times   timer_notify   is_loop\r\n";

class StormDump : public RunningStormTest {
 protected:
    static std::string shown() {
        cli_pcdb pcdb{};
        EXPECT_EQ(app_cli_storm_detect(&pcdb), 0);
        return fake::take_cli_output();
    }

    static std::string printed(void (*dump)(void)) {
        testing::internal::CaptureStdout();
        dump();
        return testing::internal::GetCapturedStdout();
    }

    static void fill(uint32_t phyid) {
        storm_port_info* info = record(phyid);
        info->packet_count = 123456;
        info->byte_count = 789;
        info->flow_over_times = 4;
        info->unloop_times = 5;
        info->timer_notify = 21;
        info->is_loop = 1;
    }
};

TEST_F(StormDump, EmptyListPrintsOnlyTheHeader) {
    EXPECT_EQ(shown(), kHeader);
    EXPECT_EQ(printed(storm_dump_all_port_info), "");
}

TEST_F(StormDump, RecordsAreShownFromTheFront) {
    storm_set(1, true);
    fill(101);
    storm_set_burst_limit(2, 5000, 64, true);
    storm_set(2, true);
    EXPECT_EQ(shown(),
              kHeader +
                  "2     swp2          66        5000      64        0              0            "
                  "0                 0              0            0              normal    \n"
                  "1     swp1          65        8000      1024      123456         789          "
                  "4                 5              0            21             loop      \n");
}

TEST_F(StormDump, RecordWithoutInterfaceIsLeftOut) {
    storm_set(1, true);
    storm_set(2, true);
    fake::unmap_port(1);
    fake::clear_calls();
    EXPECT_EQ(shown(),
              kHeader +
                  "2     swp2          66        8000      1024      0              0            "
                  "0                 0              0            0              normal    \n");
    EXPECT_EQ(fake::calls_of({"zlog"}),
              (Lines{fake::error("storm_get_ifx_by_phyid", "rv: -1, msg->phyid: 0x65")}));
    EXPECT_EQ(printed(storm_dump_all_port_info),
              "\n (ifx: 2)phyid = 66 , rate = 8000, burst = 1024, packet_count = 0, "
              "byte_count = 0,flow_over_times= 0, unloop_times = 0, poll_times = 0 , "
              "timer_notify = 0, is_loop = 0 \n");
}

TEST_F(StormDump, PortInfoIsPrintedToStandardOutput) {
    storm_set(1, true);
    fill(101);
    EXPECT_EQ(printed(storm_dump_all_port_info),
              "\n (ifx: 1)phyid = 65 , rate = 8000, burst = 1024, packet_count = 123456, "
              "byte_count = 789,flow_over_times= 4, unloop_times = 5, poll_times = 0 , "
              "timer_notify = 21, is_loop = 1 \n");
}

TEST_F(StormDump, CountersArePrintedToStandardOutput) {
    std_opt_statics = {.get_cnt_times = 1,
                       .get_fail_times = 2,
                       .notify_loop_times = 3,
                       .notify_unloop_times = 4,
                       .flow_over_times = 5,
                       .fix_notify_times = 6};
    EXPECT_EQ(printed(storm_dump_all_cnt),
              "\n*******************************************\n"
              "flow_over_times = 5 \n"
              "get_cnt_times = 1 \n"
              "get_fail_times = 2 \n"
              "notify_loop_times = 3 \n"
              "notify_unloop_times = 4\n"
              "fix_notify_times = 6 \n"
              "\n*******************************************\n");
}

TEST_F(StormDump, HelpPrintsNothing) {
    cli_pcdb pcdb{};
    pcdb.flags = CLI_FLAG_HELP;
    fake::clear_calls();
    EXPECT_EQ(app_cli_storm_detect(&pcdb), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(StormDump, NodesOfTheDebugTree) {
    fake::name(reinterpret_cast<const void*>(app_cli_storm_detect), "app_cli_storm_detect");
    EXPECT_EQ(fake::tree(&Tapp_dbg_storm_detect_kw),
              "keyword \"storm-detect\" [\"storm-detect\"] 0 14,14 1,2,0,0,0 \"storm-detect\" 1\n"
              "  eol 1 app_cli_storm_detect\n");
}

TEST_F(StormDump, ConversionFillsIndexAndShortName) {
    uint32_t ifx = 0;
    char name[STORM_NAME_BYTES];
    fake::clear_calls();
    EXPECT_EQ(storm_get_ifx_by_phyid(102, &ifx, name), 0);
    EXPECT_EQ(ifx, 2u);
    EXPECT_STREQ(name, "swp2");
    EXPECT_EQ(fake::take_calls(), (Lines{"libddm_get_ifx_by_phyid 102", "lsm_if_get_sname 2 64"}));
    EXPECT_EQ(storm_get_ifx_by_phyid(999, &ifx, name), 1);
}

// ---- Layouts ----

TEST(StormLayout, RecordsAndMessages) {
    EXPECT_EQ(sizeof(storm_ifx_info), 24u);
    EXPECT_EQ(offsetof(storm_ifx_info, ifx), 16u);
    EXPECT_EQ(sizeof(storm_rate_info), 32u);
    EXPECT_EQ(offsetof(storm_rate_info, rate), 16u);
    EXPECT_EQ(offsetof(storm_rate_info, burst), 20u);
    EXPECT_EQ(offsetof(storm_rate_info, ifx), 24u);
    EXPECT_EQ(sizeof(storm_port_info), 88u);
    EXPECT_EQ(offsetof(storm_port_info, rate), 16u);
    EXPECT_EQ(offsetof(storm_port_info, burst), 20u);
    EXPECT_EQ(offsetof(storm_port_info, acl_id), 24u);
    EXPECT_EQ(offsetof(storm_port_info, phyid), 28u);
    EXPECT_EQ(offsetof(storm_port_info, packet_count), 32u);
    EXPECT_EQ(offsetof(storm_port_info, byte_count), 40u);
    EXPECT_EQ(offsetof(storm_port_info, flow_over_times), 48u);
    EXPECT_EQ(offsetof(storm_port_info, unloop_times), 52u);
    EXPECT_EQ(offsetof(storm_port_info, poll_times), 56u);
    EXPECT_EQ(offsetof(storm_port_info, timer_notify), 60u);
    EXPECT_EQ(offsetof(storm_port_info, is_loop), 64u);
    EXPECT_EQ(offsetof(storm_port_info, cur_packet_count), 72u);
    EXPECT_EQ(offsetof(storm_port_info, cur_byte_count), 80u);
    EXPECT_EQ(sizeof(storm_loop_msg), 12u);
    EXPECT_EQ(offsetof(storm_loop_msg, ifx), 4u);
    EXPECT_EQ(offsetof(storm_loop_msg, reserved), 8u);
    EXPECT_EQ(sizeof(storm_opt_statics), 40u);
    EXPECT_EQ(offsetof(storm_opt_statics, get_cnt_times), 0u);
    EXPECT_EQ(offsetof(storm_opt_statics, get_fail_times), 8u);
    EXPECT_EQ(offsetof(storm_opt_statics, notify_loop_times), 16u);
    EXPECT_EQ(offsetof(storm_opt_statics, notify_unloop_times), 24u);
    EXPECT_EQ(offsetof(storm_opt_statics, flow_over_times), 32u);
    EXPECT_EQ(offsetof(storm_opt_statics, fix_notify_times), 36u);
}

}  // namespace
