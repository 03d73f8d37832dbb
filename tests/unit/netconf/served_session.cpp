#include "tests/unit/netconf/served_session.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <regex>

#include "p_app.pb-c.h"
#include "p_mng.pb-c.h"
#include "services/netconf/operations.h"
#include "tests/unit/netconf/intercepted.h"

namespace netconf::test {
namespace {

const std::string kEnd = "]]>]]>";

// One message, without its frame.
std::string read_message(int fd) {
    std::string text;
    char byte = 0;
    while (!text.ends_with(kEnd)) {
        if (::read(fd, &byte, 1) != 1) {
            return "no message: " + text;
        }
        text += byte;
    }
    text.resize(text.size() - kEnd.size());
    return text;
}

// The answer to the request with this index.
std::string packed_answer(PMng__UiIndex index, int result) {
    PMng__OperateResult outcome = P_MNG__OPERATE_RESULT__INIT;
    outcome.result = result;
    PMng__UiOperate record = P_MNG__UI_OPERATE__INIT;
    record.index = &index;
    record.rst = &outcome;
    std::string bytes(p_mng__ui_operate__get_packed_size(&record), '\0');
    p_mng__ui_operate__pack(&record, reinterpret_cast<uint8_t*>(bytes.data()));
    return bytes;
}

}  // namespace

std::string hello(const std::string& base) {
    return "<hello xmlns=\"" + kBaseNamespace + "\"><capabilities><capability>" + base +
           "</capability></capabilities></hello>" + kEnd;
}

std::string request(const std::string& operation, const std::string& id) {
    return "<rpc xmlns=\"" + kBaseNamespace + "\" message-id=\"" + id + "\">" + operation +
           "</rpc>" + kEnd;
}

std::string ErrorText::xml() const {
    return "<rpc-error><error-type>" + type + "</error-type><error-tag>" + tag +
           "</error-tag><error-severity>error</error-severity>" +
           (path.empty()
                ? ""
                : "<error-path xmlns:qvld=\"" + kModelNamespace + "\">" + path + "</error-path>") +
           "<error-message xml:lang=\"en\">" + message + "</error-message>" +
           (info.empty() ? "" : "<error-info>" + info + "</error-info>") + "</rpc-error>";
}

void ServedSession::SetUp() {
    reset_interception();
    freeze_clock();               // the agent has all the time it needs
    set_time_of_day(1767323045);  // 2026-01-02T03:04:05Z
    peer_ = std::make_unique<DatabasePeer>(folder_.path("redis.sock"));
    options_.redis.socket = peer_->socket();
    options_.runtime_dir = folder_.path("run");
    number_ = std::make_unique<SessionNumber>(options_.runtime_dir, getuid());
    session_.reset(
        new Session{.options = options_,
                    .context = context_.get(),
                    .number = *number_,
                    .lock = qv::RunningLock(options_.runtime_dir, number_->id(), "admin"),
                    .subscription = nullptr});
    accept();
}

void ServedSession::accept() {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    client_ = ends[0];
    server_ = ends[1];
    const std::string greeting = hello();
    ASSERT_EQ(::write(client_, greeting.data(), greeting.size()),
              static_cast<ssize_t>(greeting.size()));
    start_server(const_cast<ly_ctx*>(session_->context));
    ASSERT_EQ(nc_accept_inout(server_, server_, "admin", &session_->link), NC_MSG_HELLO);
    polled_ = nc_ps_new();
    nc_ps_add_session(polled_, session_->link);
    nc_session_set_data(session_->link, session_.get());
    read_message(client_);  // the server's hello
}

void ServedSession::TearDown() {
    if (polled_ != nullptr) {
        nc_ps_clear(polled_, 1, nullptr);
        nc_ps_free(polled_);
    }
    nc_server_destroy();  // while the modules are still there
    close(client_);
    close(server_);
}

std::string ServedSession::exchange(const std::string& message) {
    const std::string framed = message + kEnd;
    EXPECT_EQ(::write(client_, framed.data(), framed.size()), static_cast<ssize_t>(framed.size()));
    nc_ps_poll(polled_, 0, nullptr);
    return std::regex_replace(read_message(client_), std::regex(">\\s+<"), "><");
}

std::string ServedSession::content_of_reply(const std::string& reply) {
    const std::string start = "<rpc-reply xmlns=\"" + kBaseNamespace + "\" message-id=\"1\">";
    const std::string end = "</rpc-reply>";
    if (!reply.starts_with(start) || reply.find(end) == std::string::npos) {
        return "no reply: " + reply;
    }
    return reply.substr(start.size(), reply.rfind(end) - start.size());
}

std::string ServedSession::reply_to(const std::string& operation) {
    const std::string framed = request(operation);
    return content_of_reply(exchange(framed.substr(0, framed.size() - kEnd.size())));
}

void ServedSession::publish_policy(uint32_t policy) {
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = policy;
    std::string packed(p_app__lda_nc_policy__get_packed_size(&record), '\0');
    p_app__lda_nc_policy__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
    peer_->store(22, "p_app.lda_nc_policy/", packed);
}

void ServedSession::publish_port(std::string name, uint32_t policy, bool src_port) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    index.name = name.data();
    PApp__LdaLoopEntry record = P_APP__LDA_LOOP_ENTRY__INIT;
    record.index = &index;
    record.policy = policy;
    record.src_port = src_port ? 1 : 0;
    std::string packed(p_app__lda_loop_entry__get_packed_size(&record), '\0');
    p_app__lda_loop_entry__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
    peer_->store(4, "p_app.lda_loop_entry/name=" + name, packed);
}

void ServedSession::reserve_changes_for(const std::string& group) {
    options_.write_group = group;
    session_->may_change = false;
}

std::string ServedSession::lose_database() {
    options_.redis.socket = folder_.path("nobody.sock");
    return "the object database at " + options_.redis.socket +
           " cannot be reached: No such file or directory";
}

void ServedSession::run_agent(int result) {
    peer_->set_other_listeners(1);
    peer_->on_publish([this, result](const std::string& /*channel*/, const std::string& payload) {
        PApp__LdaNcPolicy* const record = p_app__lda_nc_policy__unpack(
            nullptr, payload.size() - 1, reinterpret_cast<const uint8_t*>(payload.data()) + 1);
        const PMng__UiIndex& index = *record->rst->index;
        requests_.push_back(std::to_string(index.type) + " " +
                            std::to_string(record->loop_policy_cli));
        peer_->publish("mom/3/p_mng.ui_operate", '\2' + packed_answer(index, result));
        p_app__lda_nc_policy__free_unpacked(record, nullptr);
    });
}

}  // namespace netconf::test
