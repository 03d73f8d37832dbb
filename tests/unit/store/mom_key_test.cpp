#include "platform/client/mom_key.h"

#include <gtest/gtest.h>

#include <string>

#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "p_mng.pb-c.h"

namespace {

using Packed = std::vector<uint8_t>;

std::string loop_entry_key(const char* name) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    index.name = const_cast<char*>(name);
    PApp__LdaLoopEntry record = P_APP__LDA_LOOP_ENTRY__INIT;
    record.index = &index;
    return qv::record_key(record.base).value();
}

std::string operation_pattern(const char* publisher, int type, int oid) {
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    index.publisher = const_cast<char*>(publisher);
    index.type = type;
    index.oid = oid;
    PMng__UiOperate record = P_MNG__UI_OPERATE__INIT;
    record.index = &index;
    return qv::record_key_pattern(record.base).value();
}

TEST(MomKey, NumberIsWrittenInDecimal) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    index.ifx = 4294967295U;
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    record.index = &index;
    EXPECT_EQ(qv::record_key(record.base), "p_bridge.tarn_loop_info/ifx=4294967295");
    index.ifx = 0;
    EXPECT_EQ(qv::record_key(record.base), "p_bridge.tarn_loop_info/ifx=0");
}

TEST(MomKey, TextStandsAsItIs) {
    EXPECT_EQ(loop_entry_key("swp1"), "p_app.lda_loop_entry/name=swp1");
    EXPECT_EQ(loop_entry_key(""), "p_app.lda_loop_entry/name=");
    EXPECT_EQ(loop_entry_key("Ten GigE 1.2:3"), "p_app.lda_loop_entry/name=Ten GigE 1.2:3");
}

TEST(MomKey, SeparatorsAndBytesThatDoNotPrintAreEscaped) {
    EXPECT_EQ(loop_entry_key("a%b,c=d/e"), "p_app.lda_loop_entry/name=a%25b%2Cc%3Dd%2Fe");
    EXPECT_EQ(loop_entry_key("\x01\n\x7f\xc3\xbc"), "p_app.lda_loop_entry/name=%01%0A%7F%C3%BC");
    EXPECT_EQ(loop_entry_key("*?[x]\\"), "p_app.lda_loop_entry/name=*?[x]\\");
}

TEST(MomKey, SeveralFieldsAreWrittenInNumberOrder) {
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    index.publisher = const_cast<char*>("netconf,1");
    index.type = -2;
    index.oid = 9;
    PMng__UiOperate record = P_MNG__UI_OPERATE__INIT;
    record.index = &index;
    EXPECT_EQ(qv::record_key(record.base), "p_mng.ui_operate/publisher=netconf%2C1,type=-2,oid=9");
}

TEST(MomKey, TypeWithoutIndexIsASingleton) {
    const PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    EXPECT_EQ(qv::record_key(record.base), "p_app.lda_nc_policy/");
    EXPECT_EQ(qv::record_key_pattern(record.base), "p_app.lda_nc_policy/");
}

TEST(MomKey, RecordThatLeavesItsIndexOutHasNoKey) {
    const PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    EXPECT_EQ(qv::record_key(record.base), std::nullopt);
    EXPECT_EQ(qv::record_key_pattern(record.base), std::nullopt);
}

TEST(MomKey, PatternLeavesFieldsAtTheirDefaultOpen) {
    EXPECT_EQ(operation_pattern("", 0, 0), "p_mng.ui_operate/publisher=*,type=*,oid=*");
    EXPECT_EQ(operation_pattern("ui", 0, 7), "p_mng.ui_operate/publisher=ui,type=*,oid=7");
}

TEST(MomKey, TextThatReadsZeroIsNoDefault) {
    EXPECT_EQ(operation_pattern("0", 0, 0), "p_mng.ui_operate/publisher=0,type=*,oid=*");
}

TEST(MomKey, PatternTakesSpecialCharactersLiterally) {
    EXPECT_EQ(operation_pattern("a*b?[c]\\", 0, 0),
              "p_mng.ui_operate/publisher=a\\*b\\?\\[c]\\\\,type=*,oid=*");
}

TEST(MomKey, KeyOfARecordIsPackedWithoutItsOtherFields) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    index.ifx = 7;
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    record.index = &index;
    record.is_loop = 1;
    EXPECT_EQ(qv::pack_record(record.base), (Packed{0x2a, 2, 0x08, 7, 0x38, 1}));
    EXPECT_EQ(qv::pack_key_of_record(record.base), (Packed{0x2a, 2, 0x08, 7}));
    PApp__LdaNcPolicy singleton = P_APP__LDA_NC_POLICY__INIT;
    singleton.loop_policy_cli = 3;
    EXPECT_EQ(qv::pack_key_of_record(singleton.base), Packed{});
}

}  // namespace
