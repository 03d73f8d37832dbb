// A session served within this process: the test is its client, at the other end of a socket.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "services/netconf/session.h"
#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/notification_records.h"

namespace netconf::test {

inline const std::string kBaseNamespace = "urn:ietf:params:xml:ns:netconf:base:1.0";
inline const std::string kModelNamespace = "urn:qv:yang:qv-loop-detect-server";

// A client's hello, framed.
std::string hello(const std::string& base = "urn:ietf:params:netconf:base:1.0");
// A request, framed for a client without chunks.
std::string request(const std::string& operation, const std::string& id = "1");

// The <rpc-error> of a reply.
struct ErrorText {
    std::string type;
    std::string tag;
    std::string message;
    std::string path{};  // of the data that is meant
    std::string info{};  // content of <error-info>
    std::string xml() const;
};

class ServedSession : public testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

    // The content of the reply to a request. Elements without a namespace are those of the base
    // protocol.
    std::string reply_to(const std::string& operation);
    // The whole reply to a message, likewise.
    std::string exchange(const std::string& message);
    // The content of a reply with the message-id 1.
    static std::string content_of_reply(const std::string& reply);

    // The policy that the agent has published.
    void publish_policy(uint32_t policy);
    void publish_port(std::string name, uint32_t policy, bool src_port);
    // An agent that answers each request with `result` and notes it in requests().
    void run_agent(int result = 0);
    // The requests so far: their type and policy, as "2 3".
    std::vector<std::string> requests() const { return requests_; }

    Session& session() { return *session_; }
    // From now on the user of the session is not in this group, which may change things.
    void reserve_changes_for(const std::string& group);
    const std::string& runtime_dir() const { return options_.runtime_dir; }
    std::string id() const { return std::to_string(number_->id()); }
    DatabasePeer& database() { return *peer_; }
    // From now on the object database is away. Returns the <rpc-error> of a request without it.
    std::string lose_database();

 private:
    void accept();

    Folder folder_;
    std::vector<std::string> requests_;
    std::unique_ptr<DatabasePeer> peer_;
    const Context context_ = load_modules(YANG_DIR);
    Options options_;
    std::unique_ptr<SessionNumber> number_;
    std::unique_ptr<Session> session_;
    nc_pollsession* polled_ = nullptr;
    int client_ = -1;
    int server_ = -1;
};

}  // namespace netconf::test
