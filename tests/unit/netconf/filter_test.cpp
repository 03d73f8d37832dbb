// Filters on data of the model; the system tests cover the requests end to end.
#include "services/netconf/filter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "services/netconf/rpc_error.h"

using netconf::Context;
using netconf::Filter;
using netconf::Tree;

namespace {

class FilterOfGet : public testing::Test {
 protected:
    void SetUp() override {
        for (const char* const name : {"swp1", "swp2"}) {
            const std::string entry = "/qv-loop-detect-server:loop-detect/looped-port[name='" +
                                      std::string(name) + "']/policy";
            add_node(context_.get(), data_, entry, name[3] == '1' ? "1" : "0");
        }
        add_node(context_.get(), data_, "/qv-loop-detect-server:loop-detect/loop-policy", "2");
        add_node(context_.get(), data_,
                 "/nc-notifications:netconf/streams/stream[name='NETCONF']/replaySupport", "false");
    }

    // The data that pass `filter`, an element with its content, as XML.
    std::string passes(const std::string& filter) {
        const std::string text =
            "<get xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + filter + "</get>";
        ly_in* in = nullptr;
        ly_in_new_memory(text.c_str(), &in);
        lyd_node* root = nullptr;
        EXPECT_EQ(
            lyd_parse_op(context_.get(), nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &root, nullptr),
            LY_SUCCESS)
            << ly_errmsg(context_.get());
        ly_in_free(in, 0);
        const Tree rpc(root);
        const Tree passed = Filter::of(*root).apply(data_.get());
        char* printed = nullptr;
        lyd_print_mem(&printed, passed.get(), LYD_XML, LYD_PRINT_SHRINK | LYD_PRINT_WITHSIBLINGS);
        const std::string result = printed == nullptr ? "" : printed;
        free(printed);
        return result;
    }

    static std::string in_container(const std::string& content) {
        return "<filter><loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">" + content +
               "</loop-detect></filter>";
    }

    static std::string container(const std::string& content) {
        return "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">" + content +
               "</loop-detect>";
    }

    const Context context_ = netconf::load_modules(YANG_DIR);
    Tree data_;
};

const std::string kPort1 = "<looped-port><name>swp1</name><policy>1</policy></looped-port>";
const std::string kPort2 = "<looped-port><name>swp2</name><policy>0</policy></looped-port>";
const std::string kPolicy = "<loop-policy>2</loop-policy>";

TEST_F(FilterOfGet, SelectionIncludesTheWholeNode) {
    EXPECT_EQ(passes(in_container("")), container(kPolicy + kPort1 + kPort2));
    EXPECT_EQ(passes(in_container("<looped-port/>")), container(kPort1 + kPort2));
    EXPECT_EQ(passes(in_container("<loop-policy/>")), container(kPolicy));
}

TEST_F(FilterOfGet, ContentMatchAloneIncludesItsSiblings) {
    EXPECT_EQ(passes(in_container("<looped-port><name>swp2</name></looped-port>")),
              container(kPort2));
    EXPECT_EQ(passes(in_container("<looped-port><policy> 1 </policy></looped-port>")),
              container(kPort1));
}

TEST_F(FilterOfGet, FailedContentMatchIncludesNothing) {
    EXPECT_EQ(passes(in_container("<loop-policy>3</loop-policy><looped-port/>")), "");
    EXPECT_EQ(passes(in_container("<looped-port><name>swp9</name></looped-port>")), "");
}

TEST_F(FilterOfGet, MatchAndSelectionTogetherTakeBoth) {
    EXPECT_EQ(passes(in_container("<loop-policy>2</loop-policy><looped-port><name>swp1</name>"
                                  "</looped-port>")),
              container(kPolicy + kPort1));
}

TEST_F(FilterOfGet, KeysOfAListAreIncluded) {
    EXPECT_EQ(passes(in_container("<looped-port><policy/></looped-port>")),
              container(kPort1 + kPort2));
}

TEST_F(FilterOfGet, SeveralSubtreesAreJoined) {
    EXPECT_EQ(passes("<filter><loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">"
                     "<loop-policy/></loop-detect><netconf "
                     "xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"/></filter>"),
              "<netconf xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"><streams><stream>"
              "<name>NETCONF</name><replaySupport>false</replaySupport></stream></streams>"
              "</netconf>" +
                  container(kPolicy));
}

TEST_F(FilterOfGet, ElementWithoutANamespaceMatchesInEach) {
    EXPECT_EQ(passes("<filter><loop-detect xmlns=\"\"><loop-policy/></loop-detect></filter>"),
              container(kPolicy));
}

TEST_F(FilterOfGet, OtherNamespaceAndEmptyFilterTakeNothing) {
    EXPECT_EQ(passes("<filter><loop-detect xmlns=\"urn:other\"/></filter>"), "");
    EXPECT_EQ(passes("<filter><loop-detect/></filter>"), "");  // that of the base protocol
    EXPECT_EQ(passes("<filter/>"), "");
    EXPECT_EQ(passes("<filter>text</filter>"), "");
}

TEST_F(FilterOfGet, WithoutAFilterEverythingPasses) {
    EXPECT_NE(passes("").find(container(kPolicy + kPort1 + kPort2)), std::string::npos);
}

TEST_F(FilterOfGet, XpathSelectsNodesAndTheirAncestors) {
    EXPECT_EQ(passes("<filter type=\"xpath\" xmlns:m=\"urn:qv:yang:qv-loop-detect-server\" "
                     "select=\"//m:policy[. = 1]\"/>"),
              container(kPort1));
    EXPECT_EQ(passes("<filter type=\"xpath\" xmlns:m=\"urn:qv:yang:qv-loop-detect-server\" "
                     "select=\"//m:name | /m:loop-detect/m:loop-policy\"/>"),
              container(kPolicy + "<looped-port><name>swp1</name></looped-port>"
                                  "<looped-port><name>swp2</name></looped-port>"));
}

TEST_F(FilterOfGet, XpathComparesEveryElement) {
    EXPECT_EQ(passes("<filter type=\"xpath\" select=\"//*[. = 'swp2']\"/>"),
              container("<looped-port><name>swp2</name></looped-port>"));
}

TEST_F(FilterOfGet, BlanksAroundAContentMatchDoNotCount) {
    EXPECT_EQ(
        passes(in_container("<looped-port><name> \t&#13;\n swp2 &#13;\n</name></looped-port>")),
        container(kPort2));
    EXPECT_EQ(passes(in_container("<looped-port><policy> &#13; </policy></looped-port>")),
              container(kPort1 + kPort2));
    EXPECT_EQ(passes(in_container("<looped-port><name>swp</name></looped-port>")), "");
}

TEST_F(FilterOfGet, ContentMatchLooksAtItsOwnElementAlone) {
    EXPECT_EQ(passes(in_container("<other>2</other>")), "");
    EXPECT_EQ(passes(in_container("<loop-policy xmlns=\"urn:other\">2</loop-policy>")), "");
}

TEST_F(FilterOfGet, SelectionBelowALeafOrOfAnotherNameTakesNothing) {
    EXPECT_EQ(passes(in_container("<loop-policy><a/></loop-policy>")), "");
    EXPECT_EQ(passes(in_container("<other/>")), "");
    EXPECT_EQ(passes("<filter><loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\">"
                     "<loop-policy xmlns=\"urn:other\"/></loop-detect></filter>"),
              "");
}

TEST_F(FilterOfGet, WholeNodeStaysWholeWhenAPartOfItIsSelectedToo) {
    EXPECT_EQ(passes(in_container("<looped-port/><looped-port><policy/></looped-port>")),
              container(kPort1 + kPort2));
    EXPECT_EQ(passes("<filter type=\"xpath\" xmlns:m=\"urn:qv:yang:qv-loop-detect-server\" "
                     "select=\"/m:loop-detect | //m:policy\"/>"),
              container(kPolicy + kPort1 + kPort2));
}

TEST_F(FilterOfGet, WholeContainerStaysWholeInWhateverOrder) {
    const std::string start = "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\"";
    const std::string whole = start + "/>";
    const std::string part = start + "><loop-policy/></loop-detect>";
    EXPECT_EQ(passes("<filter>" + whole + part + "</filter>"),
              container(kPolicy + kPort1 + kPort2));
    EXPECT_EQ(passes("<filter>" + part + whole + "</filter>"),
              container(kPolicy + kPort1 + kPort2));
}

TEST_F(FilterOfGet, ContentMatchOfAContainerOrAListTakesNothing) {
    EXPECT_EQ(passes(in_container("x")), "");
    EXPECT_EQ(passes(in_container("<looped-port>x</looped-port>")), "");
}

TEST_F(FilterOfGet, SelectionOfAPartTakesNoMore) {
    EXPECT_EQ(passes(in_container("<looped-port><name/></looped-port>")),
              container("<looped-port><name>swp1</name></looped-port>"
                        "<looped-port><name>swp2</name></looped-port>"));
}

TEST_F(FilterOfGet, NothingPassesWhenThereIsNothing) {
    data_.reset();
    EXPECT_EQ(passes(""), "");
    EXPECT_EQ(passes(in_container("")), "");
    EXPECT_EQ(passes("<filter type=\"xpath\" select=\"/*\"/>"), "");
}

TEST_F(FilterOfGet, SubtreeIsTheTypeThatNeedsNoName) {
    const std::string content =
        "<loop-detect xmlns=\"urn:qv:yang:qv-loop-detect-server\"><loop-policy/></loop-detect>";
    EXPECT_EQ(passes("<filter type=\"subtree\">" + content + "</filter>"), container(kPolicy));
    EXPECT_EQ(passes("<filter>" + content + "</filter>"), container(kPolicy));
}

TEST_F(FilterOfGet, XpathWithoutSelectIsRefused) {
    try {
        passes("<filter type=\"xpath\"/>");
        FAIL() << "not refused";
    } catch (const netconf::RpcError& error) {
        EXPECT_EQ(error.tag, NC_ERR_MISSING_ATTR);
        EXPECT_EQ(error.type, NC_ERR_TYPE_PROT);
        EXPECT_EQ(error.element, "filter");
        EXPECT_EQ(error.attribute, "select");
        EXPECT_STREQ(error.what(), "a filter of type xpath needs the attribute \"select\"");
    }
}

TEST_F(FilterOfGet, XpathThatYieldsNoNodesIsRefused) {
    try {
        passes("<filter type=\"xpath\" select=\"1 + 1\"/>");
        FAIL() << "not refused";
    } catch (const netconf::RpcError& error) {
        EXPECT_EQ(error.tag, NC_ERR_INVALID_VALUE);
        EXPECT_STREQ(error.what(), "the filter \"1 + 1\" selects no nodes");
    }
    data_.reset();  // also when there is nothing to select from
    EXPECT_THROW(passes("<filter type=\"xpath\" select=\"1 + 1\"/>"), netconf::RpcError);
}

TEST_F(FilterOfGet, SubtreeThatTakesTooManyComparisonsIsRefused) {
    std::string many;
    for (int n = 0; n < 4000; n++) {
        many += "<looped-port/>";
    }
    EXPECT_NE(passes(in_container(many)), "");
    for (int n = 0; n < 3000; n++) {
        add_node(context_.get(), data_,
                 "/qv-loop-detect-server:loop-detect/looped-port[name='p" + std::to_string(n) +
                     "']/policy",
                 "1");
    }
    EXPECT_NE(passes(in_container("<looped-port/>")), "");
    try {
        passes(in_container(many));
        FAIL() << "not refused";
    } catch (const netconf::RpcError& error) {
        EXPECT_EQ(error.tag, NC_ERR_RES_DENIED);
        EXPECT_STREQ(error.what(), "the filter takes too much time or memory");
    }
}

}  // namespace
