// The modules of the server, and reading data that fits a model or none.
#include "services/netconf/schema.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "tests/unit/netconf/database_peer.h"

using netconf::Context;
using netconf::Tree;

namespace {

constexpr const char* kPolicy = "/qv-loop-detect-server:loop-detect/loop-policy";

class Schema : public testing::Test {
 protected:
    Tree parsed(const std::string& xml) {
        lyd_node* root = nullptr;
        EXPECT_EQ(lyd_parse_data_mem(context_.get(), xml.c_str(), LYD_XML,
                                     LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &root),
                  LY_SUCCESS);
        return Tree(root);
    }

    // An <edit-config> with this <config>.
    Tree edit(const std::string& config) {
        const std::string text =
            "<edit-config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><target><running/>"
            "</target>" +
            config + "</edit-config>";
        ly_in* in = nullptr;
        ly_in_new_memory(text.c_str(), &in);
        lyd_node* root = nullptr;
        EXPECT_EQ(
            lyd_parse_op(context_.get(), nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &root, nullptr),
            LY_SUCCESS);
        ly_in_free(in, 0);
        return Tree(root);
    }

    const Context context_ = netconf::load_modules(YANG_DIR);
};

TEST_F(Schema, BaseProtocolHasTheFeaturesThatAreThere) {
    const lys_module* const base = ly_ctx_get_module_implemented(context_.get(), "ietf-netconf");
    ASSERT_NE(base, nullptr);
    for (const char* const name : {"writable-running", "validate", "xpath"}) {
        EXPECT_EQ(lys_feature_value(base, name), LY_SUCCESS) << name;
    }
    for (const char* const name :
         {"candidate", "confirmed-commit", "rollback-on-error", "startup", "url"}) {
        EXPECT_EQ(lys_feature_value(base, name), LY_ENOT) << name;
    }
    for (const char* const name :
         {"ietf-netconf-monitoring", "ietf-netconf-with-defaults", "notifications",
          "nc-notifications", "qv-loop-detect-server", "qv-loop-detect-server-notification"}) {
        EXPECT_NE(ly_ctx_get_module_implemented(context_.get(), name), nullptr) << name;
    }
}

TEST_F(Schema, FolderWithoutModulesIsAFault) {
    try {
        netconf::load_modules("/nowhere");
        FAIL() << "no fault";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "the folder of the YANG modules cannot be used: /nowhere");
    }
    const netconf::test::Folder empty;
    try {
        netconf::load_modules(empty.path());
        FAIL() << "no fault";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()).substr(0, 27), "YANG module notifications: ");
    }
}

TEST_F(Schema, MissingPackageOfThePublishedModulesIsNamed) {
    try {
        netconf::load_modules(YANG_DIR, "/nowhere");
        FAIL() << "no fault";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "the YANG modules of the package libyuma-base are not in /nowhere");
    }
}

TEST_F(Schema, ProtocolModulesAreThePublishedOnes) {
    for (const auto& [name, revision] : {std::pair("ietf-netconf", "2011-06-01"),
                                         std::pair("ietf-netconf-monitoring", "2010-10-04"),
                                         std::pair("ietf-netconf-with-defaults", "2011-06-01")}) {
        const lys_module* const module = ly_ctx_get_module_implemented(context_.get(), name);
        EXPECT_STREQ(module->revision, revision) << name;
        EXPECT_EQ(std::string(module->filepath),
                  std::string(netconf::kPublishedModules) + "/" + name + "@" + revision + ".yang");
    }
}

TEST_F(Schema, ModulesInTheWorkingFolderDoNotCount) {
    const netconf::test::Folder folder;
    std::ofstream(folder.path("qv-loop-detect-server@2999-01-01.yang"))
        << "module qv-loop-detect-server { namespace \"urn:x\"; prefix x; revision 2999-01-01; }";
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    const Context context = netconf::load_modules(YANG_DIR);
    std::filesystem::current_path(before);
    const lys_module* const module =
        ly_ctx_get_module_implemented(context.get(), "qv-loop-detect-server");
    EXPECT_STREQ(module->revision, "2026-11-21");
}

TEST_F(Schema, NodeThatDoesNotFitIsAFaultAndPrintsNothing) {
    Tree tree;
    testing::internal::CaptureStderr();
    try {
        add_node(context_.get(), tree, kPolicy, "9");
        FAIL() << "no fault";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()),
                  std::string(kPolicy) +
                      " = \"9\": Unsatisfied range - value \"9\" is out of the allowed range.");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(tree, nullptr);
}

TEST_F(Schema, TreeBeginsWithItsFirstSiblingInWhateverOrderNodesCome) {
    const std::string stream = "/nc-notifications:netconf/streams/stream[name='a']";
    for (const bool policy_first : {false, true}) {
        Tree tree;
        add_node(context_.get(), tree, policy_first ? kPolicy : stream, policy_first ? "1" : "");
        add_node(context_.get(), tree, policy_first ? stream : kPolicy, policy_first ? "" : "1");
        EXPECT_EQ(tree.get(), lyd_first_sibling(tree.get()));
        EXPECT_NE(tree->next, nullptr);
        EXPECT_EQ(tree->next->next, nullptr);
    }
}

TEST_F(Schema, NamesAreKnownOfDataWithAndWithoutAModel) {
    const Tree tree = parsed(
        "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\"/>"
        "<other xmlns=\"urn:other\"/><bare xmlns=\"\"/>");
    EXPECT_STREQ(netconf::name_of(*tree), "loop-detect");
    EXPECT_STREQ(netconf::namespace_of(*tree), "urn:qv:yang:qv-loop-detect-server");
    EXPECT_STREQ(netconf::name_of(*tree->next), "other");
    EXPECT_STREQ(netconf::namespace_of(*tree->next), "urn:other");
    EXPECT_STREQ(netconf::name_of(*tree->next->next), "bare");
    EXPECT_EQ(netconf::namespace_of(*tree->next->next), nullptr);
}

TEST_F(Schema, ChildIsFoundByName) {
    const Tree rpc = edit("<config/>");
    ASSERT_NE(netconf::child_named(*rpc, "config"), nullptr);
    EXPECT_STREQ(netconf::name_of(*netconf::child_named(*rpc, "config")), "config");
    EXPECT_EQ(netconf::child_named(*rpc, "confi"), nullptr);
}

TEST_F(Schema, ContentOfAConfigurationIsItsTree) {
    const auto content = [](const Tree& rpc) {
        return netconf::content_of(*netconf::child_named(*rpc, "config"));
    };
    const Tree full = edit("<config><a xmlns=\"urn:a\"/></config>");
    ASSERT_NE(content(full), nullptr);
    EXPECT_STREQ(netconf::name_of(*content(full)), "a");
    EXPECT_EQ(content(edit("<config/>")), nullptr);
    EXPECT_EQ(content(edit("<config>text</config>")), nullptr);
    EXPECT_EQ(netconf::content_of(*full), nullptr);  // not an anyxml node
    const Tree other = parsed("<other xmlns=\"urn:other\"><a/></other>");
    EXPECT_EQ(netconf::content_of(*other), nullptr);  // of no model
}

TEST_F(Schema, BlankTextCountsAsNone) {
    const auto holds = [this](const std::string& config) {
        const Tree rpc = edit(config);
        return netconf::holds_text(*netconf::child_named(*rpc, "config"));
    };
    EXPECT_TRUE(holds("<config>text</config>"));
    EXPECT_TRUE(holds("<config> \t\n x</config>"));
    EXPECT_FALSE(holds("<config> \t&#13;\n </config>"));
    EXPECT_FALSE(holds("<config/>"));
    EXPECT_FALSE(holds("<config><a xmlns=\"urn:a\">text</a></config>"));
    EXPECT_FALSE(netconf::holds_text(*edit("<config/>")));  // not an anyxml node
    EXPECT_TRUE(netconf::holds_text(*parsed("<a xmlns=\"urn:a\">text</a>")));
    EXPECT_FALSE(netconf::holds_text(*parsed("<a xmlns=\"urn:a\"> \n</a>")));
}

}  // namespace
