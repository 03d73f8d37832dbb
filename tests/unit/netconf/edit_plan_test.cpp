// The requests that an edit of the configuration sends to the agent.
#include "services/netconf/edit_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/netconf/rpc_error.h"

using netconf::Context;
using netconf::Operation;
using netconf::plan_edit;
using netconf::PolicyRequest;
using netconf::RpcError;
using netconf::Tree;

namespace {

class EditPlan : public testing::Test {
 protected:
    // "set 2", "delete 0", "nothing" or the error's tag as a number.
    std::string plan(const std::string& config, uint32_t in_force,
                     Operation fallback = Operation::kMerge) {
        lyd_node* root = nullptr;
        EXPECT_EQ(lyd_parse_data_mem(context_.get(), config.c_str(), LYD_XML,
                                     LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &root),
                  LY_SUCCESS);
        const Tree tree(root);
        try {
            const auto change = plan_edit(context_.get(), root, fallback, in_force);
            return change ? name(change->request) + " " + std::to_string(change->policy)
                          : "nothing";
        } catch (const RpcError& error) {
            return "error " + std::to_string(error.tag);
        }
    }

    static std::string leaf(const std::string& value, const std::string& operation = "",
                            const std::string& above = "") {
        return "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\"" + attribute(above) +
               "><loop-policy" + attribute(operation) + ">" + value +
               "</loop-policy></loop-detect>";
    }

    static std::string empty(const std::string& operation = "") {
        return "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\"" + attribute(operation) +
               "/>";
    }

    // The error that the edit throws.
    RpcError refusal(const std::string& config, uint32_t in_force,
                     Operation fallback = Operation::kMerge) {
        lyd_node* root = nullptr;
        EXPECT_EQ(lyd_parse_data_mem(context_.get(), config.c_str(), LYD_XML,
                                     LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &root),
                  LY_SUCCESS);
        const Tree tree(root);
        try {
            plan_edit(context_.get(), root, fallback, in_force);
        } catch (const RpcError& error) {
            return error;
        }
        ADD_FAILURE() << "not refused: " << config;
        return {NC_ERR_UNKNOWN, NC_ERR_TYPE_APP, ""};
    }

    static std::string error(NC_ERR tag) { return "error " + std::to_string(tag); }

 private:
    static std::string attribute(const std::string& operation) {
        return operation.empty() ? ""
                                 : " xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\""
                                   " nc:operation=\"" +
                                       operation + "\"";
    }

    static std::string name(PolicyRequest request) {
        switch (request) {
            case PolicyRequest::kSet:
                return "set";
            case PolicyRequest::kDelete:
                return "delete";
            case PolicyRequest::kRemove:
                return "remove";
        }
        return "?";
    }

    const Context context_ = netconf::load_modules(YANG_DIR);
};

TEST_F(EditPlan, RequestTypesAreThoseOfTheRecord) {
    EXPECT_EQ(static_cast<int>(PolicyRequest::kSet), 2);
    EXPECT_EQ(static_cast<int>(PolicyRequest::kDelete), 3);
    EXPECT_EQ(static_cast<int>(PolicyRequest::kRemove), 4);
}

TEST_F(EditPlan, MergeAndReplaceSetWhateverIsInForce) {
    for (const uint32_t in_force : {0U, 2U, 4U}) {
        EXPECT_EQ(plan(leaf("2"), in_force), "set 2");
        EXPECT_EQ(plan(leaf("2", "merge"), in_force), "set 2");
        EXPECT_EQ(plan(leaf("2", "replace"), in_force), "set 2");
        EXPECT_EQ(plan(leaf("0"), in_force), "set 0");
    }
}

TEST_F(EditPlan, CreateNeedsThatNothingIsSet) {
    EXPECT_EQ(plan(leaf("3", "create"), 0), "set 3");
    EXPECT_EQ(plan(leaf("3", "create"), 3), error(NC_ERR_DATA_EXISTS));
    EXPECT_EQ(plan(empty("create"), 3), error(NC_ERR_DATA_EXISTS));
    EXPECT_EQ(plan(empty("create"), 0), "nothing");
}

TEST_F(EditPlan, DeleteCarriesTheDefaultAndNeedsThatSomethingIsSet) {
    EXPECT_EQ(plan(leaf("", "delete"), 4), "delete 0");
    EXPECT_EQ(plan(leaf("3", "delete"), 4), "delete 0");
    EXPECT_EQ(plan(leaf("", "delete"), 0), error(NC_ERR_DATA_MISSING));
    EXPECT_EQ(plan(empty("delete"), 1), "delete 0");
    EXPECT_EQ(plan(empty("delete"), 0), error(NC_ERR_DATA_MISSING));
    EXPECT_EQ(plan(leaf("2", "", "delete"), 1), "delete 0");
}

TEST_F(EditPlan, RemoveDoesNotMindThatNothingIsSet) {
    EXPECT_EQ(plan(leaf("", "remove"), 4), "remove 0");
    EXPECT_EQ(plan(leaf("", "remove"), 0), "nothing");
    EXPECT_EQ(plan(empty("remove"), 4), "remove 0");
    EXPECT_EQ(plan(empty("remove"), 0), "nothing");
}

TEST_F(EditPlan, ReplaceOfAnAncestorRemovesTheLeaf) {
    EXPECT_EQ(plan(empty("replace"), 4), "delete 0");
    EXPECT_EQ(plan(empty("replace"), 0), "nothing");
    EXPECT_EQ(plan("", 4, Operation::kReplace), "delete 0");
    EXPECT_EQ(plan("", 0, Operation::kReplace), "nothing");
    EXPECT_EQ(plan("", 4), "nothing");
    EXPECT_EQ(plan(empty(), 4, Operation::kReplace), "delete 0");
}

TEST_F(EditPlan, OperationIsInheritedUnlessGiven) {
    EXPECT_EQ(plan(leaf("3", "", "create"), 1), error(NC_ERR_DATA_EXISTS));
    EXPECT_EQ(plan(leaf("3", "merge", "create"), 1), "set 3");
    EXPECT_EQ(plan(leaf("3"), 1, Operation::kNone), "nothing");
    EXPECT_EQ(plan(leaf("3"), 0, Operation::kNone), error(NC_ERR_DATA_MISSING));
    EXPECT_EQ(plan(leaf("9"), 1, Operation::kNone), error(NC_ERR_INVALID_VALUE));
    EXPECT_EQ(plan(leaf("3", "replace"), 1, Operation::kNone), "set 3");
}

TEST_F(EditPlan, ValuesOutsideTheModelAreRefused) {
    for (const char* const value : {"5", "-1", "", "text", "1 2", "4294967297"}) {
        EXPECT_EQ(plan(leaf(value), 0), error(NC_ERR_INVALID_VALUE)) << value;
    }
}

TEST_F(EditPlan, UnknownOperationIsRefusedOnALeafThatDoesNotParse) {
    EXPECT_EQ(plan(leaf("text", "bogus"), 0), error(NC_ERR_BAD_ATTR));
}

TEST_F(EditPlan, RefusalNamesTheFaultAndItsPlace) {
    const std::string leaf_path = "/qvld:loop-detect/qvld:loop-policy";
    const std::string start = "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">";
    const RpcError value = refusal(leaf(std::string(50, '7')), 0);
    EXPECT_EQ(value.what(),
              "loop-policy is a number from 0 to 4, not \"" + std::string(40, '7') + "\"");
    EXPECT_EQ(value.path, leaf_path);
    const RpcError attribute = refusal(leaf("text", "bogus"), 0);
    EXPECT_STREQ(attribute.what(), "\"bogus\" is not an operation");
    EXPECT_EQ(attribute.element + " " + attribute.attribute, "loop-policy operation");
    EXPECT_EQ(attribute.type, NC_ERR_TYPE_PROT);
    const RpcError twice = refusal(
        start + "<loop-policy>1</loop-policy><loop-policy>2</loop-policy></loop-detect>", 0);
    EXPECT_STREQ(twice.what(), "loop-policy is given twice");
    EXPECT_EQ(twice.element + " " + twice.path, "loop-policy " + leaf_path);
    const RpcError state = refusal(start + "<looped-port/></loop-detect>", 0);
    EXPECT_EQ(state.tag, NC_ERR_INVALID_VALUE);
    EXPECT_STREQ(state.what(), "looped-port is state, it cannot be set");
    EXPECT_EQ(state.path, "/qvld:loop-detect/qvld:looped-port");
    const RpcError inner = refusal(start + "<other/></loop-detect>", 0);
    EXPECT_EQ(inner.tag, NC_ERR_UNKNOWN_ELEM);
    EXPECT_STREQ(inner.what(), "there is nothing named \"other\" here");
    EXPECT_EQ(inner.element + " " + inner.path, "other /qvld:loop-detect");
    EXPECT_EQ(refusal("<other xmlns=\"urn:qv:yang:qv-loop-detect-server\"/>", 0).path, "/");
    const RpcError name_space = refusal("<other xmlns=\"urn:other\"/>", 0);
    EXPECT_STREQ(name_space.what(), "nothing in this namespace can be configured here");
    EXPECT_EQ(name_space.element + " " + name_space.name_space, "other urn:other");
    EXPECT_STREQ(refusal(empty() + empty(), 0).what(), "loop-detect is given twice");
    EXPECT_STREQ(refusal(start + "text</loop-detect>", 0).what(), "loop-detect holds text");
    EXPECT_STREQ(refusal(leaf("1", "create"), 2).what(), "loop-policy is set already");
    EXPECT_STREQ(refusal(leaf("1", "delete"), 0).what(), "loop-policy is not set");
    EXPECT_STREQ(refusal(leaf("1"), 0, Operation::kNone).what(), "loop-policy is not set");
    EXPECT_STREQ(refusal(empty("create"), 2).what(), "loop-detect exists already");
    EXPECT_EQ(refusal(empty("create"), 2).path, "/qvld:loop-detect");
}

TEST_F(EditPlan, ElementsOfOtherNamespacesAreUnknownWhateverTheirName) {
    const auto inside = [](const std::string& content) {
        return "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">" + content +
               "</loop-detect>";
    };
    for (const char* const name : {"loop-policy", "looped-port"}) {
        for (const char* const name_space : {"urn:other", ""}) {
            EXPECT_EQ(plan(inside("<" + std::string(name) + " xmlns=\"" + name_space + "\">1</" +
                                  name + ">"),
                           0),
                      error(NC_ERR_UNKNOWN_ELEM))
                << name << " " << name_space;
        }
    }
    EXPECT_EQ(plan("<loop-detect xmlns=\"\"/>", 0), error(NC_ERR_UNKNOWN_NS));
    EXPECT_EQ(refusal("<loop-detect xmlns=\"\"/>", 0).name_space, "");
}

TEST_F(EditPlan, OnlyTheOperationOfTheBaseProtocolCounts) {
    EXPECT_EQ(plan("<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">"
                   "<loop-policy xmlns:o=\"urn:other\" o:operation=\"delete\">text</loop-policy>"
                   "</loop-detect>",
                   3),
              error(NC_ERR_INVALID_VALUE));
    EXPECT_EQ(plan("<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">"
                   "<loop-policy xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
                   "nc:other=\"delete\">text</loop-policy></loop-detect>",
                   3),
              error(NC_ERR_INVALID_VALUE));
    EXPECT_EQ(plan(leaf("text", "delete"), 3), "delete 0");
}

TEST_F(EditPlan, OperationIsNamedInFull) {
    EXPECT_EQ(plan(leaf("text", "del"), 3), error(NC_ERR_BAD_ATTR));
    EXPECT_EQ(plan(leaf("text", "deleted"), 3), error(NC_ERR_BAD_ATTR));
}

TEST_F(EditPlan, RefusalsAreOfTheApplication) {
    const std::string start = "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">";
    const std::vector<RpcError> refusals{
        refusal(leaf("9"), 0),
        refusal(start + "<loop-policy>1</loop-policy><loop-policy>2</loop-policy></loop-detect>",
                0),
        refusal(start + "<looped-port/></loop-detect>", 0),
        refusal(start + "<other/></loop-detect>", 0),
        refusal("<other xmlns=\"urn:other\"/>", 0),
        refusal(empty() + empty(), 0),
        refusal(start + "text</loop-detect>", 0),
        refusal(leaf("1", "create"), 2),
        refusal(leaf("1", "delete"), 0),
        refusal(empty("create"), 2),
    };
    for (const RpcError& error : refusals) {
        EXPECT_EQ(error.type, NC_ERR_TYPE_APP) << error.what();
    }
}

TEST_F(EditPlan, RepeatedElementOrElementWithTextIsNamed) {
    const std::string start = "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">";
    for (const std::string& config : {empty() + empty(), start + "text</loop-detect>"}) {
        const RpcError error = refusal(config, 0);
        EXPECT_EQ(error.tag, NC_ERR_BAD_ELEM);
        EXPECT_EQ(error.element + " " + error.path, "loop-detect /qvld:loop-detect");
    }
    EXPECT_EQ(refusal(start + "<loop-policy>1</loop-policy><loop-policy/></loop-detect>", 0).tag,
              NC_ERR_BAD_ELEM);
}

TEST_F(EditPlan, RemovalOfTheContainerRemovesTheLeaf) {
    EXPECT_EQ(plan(leaf("2", "merge", "delete"), 1), "delete 0");
    EXPECT_EQ(plan(leaf("2", "create", "remove"), 1), "remove 0");
    EXPECT_EQ(plan(empty("merge"), 4), "nothing");
    EXPECT_EQ(plan("", 4, Operation::kNone), "nothing");
    EXPECT_EQ(plan("", 4, Operation::kCreate), "nothing");
}

TEST_F(EditPlan, DataOfNoModelIsRefused) {
    EXPECT_EQ(plan("<a xmlns=\"urn:a\"/>", 0), error(NC_ERR_UNKNOWN_NS));
    EXPECT_EQ(plan("<a xmlns=\"urn:qv:yang:qv-loop-detect-server\"/>", 0),
              error(NC_ERR_UNKNOWN_ELEM));
    EXPECT_EQ(plan(empty() + empty(), 0), error(NC_ERR_BAD_ELEM));
    EXPECT_EQ(plan("<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">text</loop-detect>", 3,
                   Operation::kReplace),
              error(NC_ERR_BAD_ELEM));
}

}  // namespace
