// Expressions of clients, and what they may take.
#include "services/netconf/xpath.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <iterator>
#include <string>
#include <vector>

#include "services/netconf/rpc_error.h"
#include "services/netconf/schema.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;
using namespace std::chrono_literals;
using netconf::Context;
using netconf::find_by_xpath;
using netconf::Tree;

namespace {

const std::string kTooMuch = "resource-denied: the filter takes too much time or memory";

class Xpath : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        add_ports(1, 2);
    }

    void add_ports(int first, int last) {
        for (int n = first; n <= last; n++) {
            add_node(context_.get(), tree_,
                     "/qv-loop-detect-server:loop-detect/looped-port[name='swp" +
                         std::to_string(n) + "']/policy",
                     std::to_string(n % 2));
        }
    }

    // The names and values of the nodes found, or the error.
    std::string find(const std::string& xpath) {
        std::string text;
        try {
            for (const lyd_node* const node : find_by_xpath(*tree_, xpath, left_)) {
                const char* const value = lyd_get_value(node);
                text += (text.empty() ? "" : " ") + std::string(netconf::name_of(*node)) +
                        (value == nullptr ? "" : std::string("=") + value);
            }
        } catch (const netconf::RpcError& error) {
            EXPECT_TRUE(error.tag == NC_ERR_INVALID_VALUE || error.tag == NC_ERR_RES_DENIED);
            return (error.tag == NC_ERR_RES_DENIED ? "resource-denied: " : "invalid-value: ") +
                   std::string(error.what());
        }
        return text;
    }

    const Context context_ = netconf::load_modules(YANG_DIR);
    Tree tree_;
    std::chrono::microseconds left_ = 2s;
};

std::string nested(int depth) {
    std::string text = "//*";
    for (int n = 0; n < depth; n++) {
        text = "//*[" + text + "]";
    }
    return text;
}

long open_descriptors() {
    const std::filesystem::directory_iterator found("/proc/self/fd");
    return std::distance(begin(found), end(found));
}

TEST_F(Xpath, NodesAreFoundInTheirOrder) {
    EXPECT_EQ(find("//*[local-name() = 'policy']"), "policy=1 policy=0");
    EXPECT_EQ(find("//*[. = 'swp2'] | //*[. = 'swp1']"), "name=swp1 name=swp2");
    EXPECT_EQ(find("//*[. = 'swp9']"), "");
    EXPECT_EQ(find("/*"), "loop-detect");
}

TEST_F(Xpath, NodesOfEveryTopContainerAreFound) {
    add_node(context_.get(), tree_,
             "/nc-notifications:netconf/streams/stream[name='NETCONF']/replaySupport", "false");
    EXPECT_EQ(find("/*"), "netconf loop-detect");
    EXPECT_EQ(find("//*[. = 'swp1'] | //*[. = 'NETCONF']"), "name=NETCONF name=swp1");
}

TEST_F(Xpath, RelativePathBeginsAtTheRoot) {
    EXPECT_EQ(find("qv-loop-detect-server:loop-detect/looped-port[name='swp2']/policy"),
              "policy=0");
    EXPECT_EQ(find("looped-port/policy"), "");
}

TEST_F(Xpath, ExpressionWithoutNodesIsInvalid) {
    EXPECT_EQ(find("1 + 1"), "invalid-value: the filter \"1 + 1\" selects no nodes");
    EXPECT_EQ(find("//*["), "invalid-value: the filter \"//*[\" selects no nodes");
}

TEST_F(Xpath, EvaluationThatTakesTooLongIsEnded) {
    add_ports(3, 100);
    left_ = 50ms;
    EXPECT_EQ(find(nested(4)), kTooMuch);
    EXPECT_EQ(left_, 0us);
}

TEST_F(Xpath, TimeTakenIsNoLongerLeft) {
    add_ports(3, 30);
    left_ = 100s;
    find(nested(2));
    EXPECT_LT(left_, 100s - 1ms);
    EXPECT_GT(left_, 1s);
}

TEST_F(Xpath, WithoutTimeNothingIsEvaluated) {
    left_ = 0us;
    on_fork([] {
        ADD_FAILURE() << "forked";
        return false;
    });
    EXPECT_EQ(find("/*"), kTooMuch);
}

TEST_F(Xpath, PredicatesNestFourDeep) {
    EXPECT_NE(find(nested(4)), "");
    EXPECT_EQ(find(nested(5)), "resource-denied: the filter nests predicates more than 4 deep");
    EXPECT_EQ(find("/*[1][1][1][1][1][1]"), "loop-detect");
    EXPECT_EQ(find("//*[. = '[[[[[[']"), "");
    EXPECT_EQ(find("//*[. = \"'[[[[[[\"]"), "");
    EXPECT_EQ(find("//*['a' = \"[\"]//*[//*[//*[//*[//*]]]]"), "");
}

TEST_F(Xpath, ChildThatCannotBeMadeIsAnError) {
    on_fork([] { return false; });
    EXPECT_EQ(find("/*"), kTooMuch);
    on_fork(nullptr);
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    left_ = 2s;
    const std::string without_descriptors = find("/*");
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(without_descriptors, kTooMuch);
}

TEST_F(Xpath, NothingIsLeftBehind) {
    const long before = open_descriptors();
    add_ports(3, 100);
    find("/*");
    find("1 + 1");
    left_ = 20ms;
    find(nested(4));
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(Xpath, ChildIsMadeWhileNoOtherThreadUsesTheLibrary) {
    int tries = 0;
    on_fork([&] {
        // A lock is never tried by the thread that has it.
        EXPECT_FALSE(std::async(std::launch::async, [] {
                         const bool free = netconf::libyang_in_use().try_lock();
                         if (free) {
                             netconf::libyang_in_use().unlock();
                         }
                         return free;
                     }).get());
        tries++;
        return true;
    });
    EXPECT_EQ(find("/*"), "loop-detect");
    EXPECT_EQ(tries, 1);
    EXPECT_TRUE(netconf::libyang_in_use().try_lock());
    netconf::libyang_in_use().unlock();
}

}  // namespace
