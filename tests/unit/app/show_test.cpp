// "show loop-detect" and "show loop-detect detail".
#include "lda_cli_show.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

const std::string separator =
    "----------------------------------------------------------------------------------------------"
    "----------------------- \n";
const std::string header = "loop interface             policy\n";
const std::string detail_header =
    "loop interface             tarn-detect state            storm-detect state            policy"
    "            status\n";

class Show : public StartedAgent {
 protected:
    static std::string plain() {
        cli_pcdb pcdb{};
        EXPECT_EQ(lda_show_loop_detect_command(&pcdb), 0);
        return fake::take_cli_output();
    }
    static std::string detail() {
        cli_pcdb pcdb{};
        EXPECT_EQ(lda_show_loop_detect_detail_command(&pcdb), 0);
        return fake::take_cli_output();
    }
};

TEST(ShowSeparator, Has117DashesAndABlank) {
    EXPECT_EQ(separator, std::string(117, '-') + " \n");
}

TEST_F(Show, DisabledDetection) {
    looped(7, 1, 0);
    EXPECT_EQ(plain(),
              "loop-detect state   : disable\nloop-detect policy  : N/A\n\n" + header + separator);
    EXPECT_EQ(detail(), "loop-detect state   : disable\nloop-detect policy  : N/A\n\n" +
                            detail_header + separator);
}

TEST_F(Show, PolicyWords) {
    add(7);
    struct Row {
        uint32_t policy;
        const char* word;
    };
    for (const Row& row : {Row{1, "warning"}, Row{2, "shutdown access"}, Row{3, "shutdown hybrid"},
                           Row{4, "shutdown access-hybrid"}, Row{5, "N/A"}}) {
        lda_loop_detect_ptype_set(row.policy);
        EXPECT_EQ(plain(), "loop-detect state   : enable\nloop-detect policy  : " +
                               std::string(row.word) + "\n\n" + header + separator);
    }
}

TEST_F(Show, WithoutLoopedPortsOnlyTheHeadingIsPrinted) {
    add(7);
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(detail(), "loop-detect state   : enable\nloop-detect policy  : warning\n\n" +
                            detail_header + separator);
    EXPECT_EQ(fake::calls_of({"cli_printf"}).size(), 4u);
}

TEST_F(Show, OneLineForEachLoopedPort) {
    looped(9, 7, 2);
    add(8);
    looped(3, 1, 2);
    EXPECT_EQ(plain(), "loop-detect state   : enable\nloop-detect policy  : shutdown access\n\n" +
                           header + separator +
                           "swp9                       warning\n"
                           "swp3                       shutdown\n");
}

TEST_F(Show, DetailHasStatesPolicyAndStatus) {
    lda_intf_t* hybrid = looped(9, 7, 2);
    hybrid->tarn_result = 0;
    hybrid->storm_result = 3;
    looped(3, 1, 2)->is_shutdown = 1;
    EXPECT_EQ(
        detail(),
        "loop-detect state   : enable\nloop-detect policy  : shutdown access\n\n" + detail_header +
            separator +
            "swp9                            normal                        loop                    "
            "warning           warning\n"
            "swp3                            loop                          normal                  "
            "shutdown          shutdown\n");
}

TEST_F(Show, StatusShowsThePortAndNotItsPolicy) {
    looped(9, 7, 2)->is_shutdown = 1;
    looped(3, 1, 2);
    EXPECT_EQ(
        detail(),
        "loop-detect state   : enable\nloop-detect policy  : shutdown access\n\n" + detail_header +
            separator +
            "swp9                            loop                          normal                  "
            "warning           shutdown\n"
            "swp3                            loop                          normal                  "
            "shutdown          warning\n");
}

TEST_F(Show, StatusColumnsReadNormalUnderPolicyZero) {
    lda_loop_result_t entries[2] = {{"swp1", 1, 0, 1, 0}, {"swp2", 0, 1, 0, 1}};
    lda_print_loop_info(2, entries, 1);
    EXPECT_EQ(
        fake::take_cli_output(),
        "loop-detect state   : disable\nloop-detect policy  : N/A\n\n" + detail_header + separator +
            "swp1                            loop                          normal                  "
            "warning           normal\n"
            "swp2                            normal                        loop                    "
            "shutdown          normal\n");
}

TEST_F(Show, TenLoopedPortsPrintTenLines) {
    std::string lines;
    for (uint32_t ifx = 1; ifx <= 11; ifx++) {
        lda_intf_t* record = add(ifx);
        record->total_result = 1;
        if (ifx < 10)
            lines += "swp" + std::to_string(ifx) + "                       warning\n";
    }
    lines += "swp10                      warning\n";
    g_lda_loop_set->loop_num = 11;
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(plain(), "loop-detect state   : enable\nloop-detect policy  : warning\n\n" + header +
                           separator + lines);
}

TEST_F(Show, LongNamesAreNotCut) {
    lda_loop_result_t entry{};
    std::string(40, 'n').copy(entry.name, 40);
    lda_loop_detect_ptype_set(1);
    lda_print_loop_info(1, &entry, 0);
    EXPECT_EQ(fake::take_cli_output(),
              "loop-detect state   : enable\nloop-detect policy  : warning\n\n" + header +
                  separator + std::string(40, 'n') + "warning\n");
}

TEST_F(Show, SnapshotIsLogged) {
    looped(7, 1, 1);
    log_everything();
    lda_get_loop_entry(1);
    EXPECT_EQ(fake::calls_of({"zlog"}),
              (Lines{info("lda_all_loop_result_get", "num=1, is_shutdown=0"),
                     info("lda_get_loop_entry", "lda_get_loop_entry = 1.")}));
}

}  // namespace
