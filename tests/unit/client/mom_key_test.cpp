#include "platform/client/mom_key.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

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

TEST(MomKey, TextIsUnchanged) {
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

// An index with kinds of fields that no record of this switch has.
struct OddIndex {
    ProtobufCMessage base;
    int64_t below;
    uint64_t above;
    protobuf_c_boolean flag;
    char* text;
    size_t list_size;
    uint32_t* list;
};
struct OddRecord {
    ProtobufCMessage base;
    void* index;
};

ProtobufCFieldDescriptor field(const char* name, ProtobufCType type, size_t offset,
                               ProtobufCLabel label = PROTOBUF_C_LABEL_NONE, uint32_t flags = 0) {
    ProtobufCFieldDescriptor made{};
    made.name = name;
    made.label = label;
    made.type = type;
    made.offset = static_cast<unsigned>(offset);
    made.flags = flags;
    return made;
}

// The key of a record with `fields` in its index, whose own field is made by `index_field`.
std::optional<std::string> odd_key(const std::vector<ProtobufCFieldDescriptor>& fields,
                                   const ProtobufCFieldDescriptor& index_field,
                                   const OddIndex& values) {
    ProtobufCMessageDescriptor index_type{};
    index_type.n_fields = static_cast<unsigned>(fields.size());
    index_type.fields = fields.data();
    const unsigned by_name[] = {0};
    ProtobufCMessageDescriptor type{};
    type.name = "odd.record";
    type.n_fields = 1;
    type.fields = &index_field;
    type.fields_sorted_by_name = by_name;
    OddIndex index = values;
    index.base.descriptor = &index_type;
    OddRecord record{};
    record.base.descriptor = &type;
    record.index = &index;
    return qv::record_key(record.base);
}

const ProtobufCFieldDescriptor kIndexField =
    field("index", PROTOBUF_C_TYPE_MESSAGE, offsetof(OddRecord, index));

TEST(MomKey, EveryKindOfPlainFieldIsWritten) {
    const std::vector<ProtobufCFieldDescriptor> fields = {
        field("below", PROTOBUF_C_TYPE_INT64, offsetof(OddIndex, below)),
        field("above", PROTOBUF_C_TYPE_UINT64, offsetof(OddIndex, above)),
        field("flag", PROTOBUF_C_TYPE_BOOL, offsetof(OddIndex, flag)),
        field("text", PROTOBUF_C_TYPE_STRING, offsetof(OddIndex, text))};
    OddIndex values{};
    values.below = -5'000'000'000;
    values.above = 18'446'744'073'709'551'615U;
    values.flag = 1;
    EXPECT_EQ(odd_key(fields, kIndexField, values),
              "odd.record/below=-5000000000,above=18446744073709551615,flag=1,text=");
    values.flag = 0;
    EXPECT_EQ(odd_key({fields[2]}, kIndexField, values), "odd.record/flag=0");
}

TEST(MomKey, IndexWithOtherThanPlainFieldsHasNoKey) {
    const OddIndex values{};
    const ProtobufCFieldDescriptor plain =
        field("above", PROTOBUF_C_TYPE_UINT64, offsetof(OddIndex, above));
    EXPECT_EQ(odd_key({plain}, kIndexField, values), "odd.record/above=0");
    EXPECT_EQ(odd_key({plain, field("list", PROTOBUF_C_TYPE_UINT32, offsetof(OddIndex, list),
                                    PROTOBUF_C_LABEL_REPEATED)},
                      kIndexField, values),
              std::nullopt);
    EXPECT_EQ(odd_key({field("above", PROTOBUF_C_TYPE_UINT64, offsetof(OddIndex, above),
                             PROTOBUF_C_LABEL_NONE, PROTOBUF_C_FIELD_FLAG_ONEOF)},
                      kIndexField, values),
              std::nullopt);
    EXPECT_EQ(odd_key({field("part", PROTOBUF_C_TYPE_DOUBLE, offsetof(OddIndex, above))},
                      kIndexField, values),
              std::nullopt);
    ProtobufCFieldDescriptor several = kIndexField;
    several.label = PROTOBUF_C_LABEL_REPEATED;
    EXPECT_EQ(odd_key({plain}, several, values), std::nullopt);
    ProtobufCFieldDescriptor number = kIndexField;
    number.type = PROTOBUF_C_TYPE_UINT64;
    EXPECT_EQ(odd_key({plain}, number, values), std::nullopt);
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

TEST(MomKey, TextZeroIsNotADefault) {
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
