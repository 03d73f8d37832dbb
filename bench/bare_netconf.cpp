// Floors of the NETCONF server: the times of a program that talks to Redis directly.
//
//     bare_netconf REDIS_SOCKET
//
// Standard output says "ready". Then each line of standard input is answered with nanoseconds:
//
//     loop IFX         from before the report of a loop is sent to Redis until a subscriber has
//                      unpacked it. In a database where the agent does not listen, so that neither
//                      disturbs the other.
//     request POLICY   from before the request for a policy is sent until the agent's answer to it
//                      has been unpacked
//
// Any error, or a wait of five seconds, ends the program.
#include <unistd.h>

#include <chrono>
#include <iostream>

#include "bench/redis_link.h"
#include "p_app.pb-c.h"
#include "p_mng.pb-c.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr timeval kLate{.tv_sec = 5, .tv_usec = 0};

constexpr unsigned kQuietDatabase = 5;
constexpr char kQuietReports[] = "mom/5/p_bridge.tarn_loop_info";
constexpr unsigned kLocalDatabase = 3;
constexpr char kRequestKey[] = "p_app.lda_nc_policy/";
constexpr char kRequests[] = "mom/3/p_app.lda_nc_policy";
constexpr char kAnswers[] = "mom/3/p_mng.ui_operate";
constexpr char kPublisher[] = "bare_netconf";

// A connection for writing, and one for listening.
struct Links {
    bench::Connection writer;
    bench::Connection listener;
};

Links connect(const char* socket, unsigned database, const char* channel) {
    Links links{bench::connect(socket, database), bench::connect(socket, database)};
    redisSetTimeout(links.listener.get(), kLate);
    bench::subscribe(links.listener.get(), channel);
    return links;
}

long long loop_ns(const Links& links, uint32_t ifx) {
    bench::append_report(links.writer.get(), ifx, 1, kQuietReports);
    const auto start = Clock::now();
    bench::send_queued(links.writer.get());
    for (;;) {
        const bench::Reply message = bench::next_reply(links.listener.get());
        const bench::Report report = bench::unpack(bench::payload(message));
        if (report && report->index->ifx == ifx) {
            break;
        }
    }
    const std::chrono::nanoseconds took = Clock::now() - start;
    bench::take_replies(links.writer.get());
    return took.count();
}

std::string request_notice(uint32_t policy, int32_t oid) {
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    std::string publisher = kPublisher;
    index.publisher = publisher.data();
    index.type = 2;  // set
    index.oid = oid;
    PMng__UiOperate operation = P_MNG__UI_OPERATE__INIT;
    operation.index = &index;
    operation.src = P_MNG__OPERATE_SRC_T__NETCONF;
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = policy;
    record.rst = &operation;
    std::string notice(1 + p_app__lda_nc_policy__get_packed_size(&record), '\0');
    p_app__lda_nc_policy__pack(&record, reinterpret_cast<uint8_t*>(notice.data()) + 1);
    return notice;
}

struct AnswerFree {
    void operator()(PMng__UiOperate* answer) const {
        p_mng__ui_operate__free_unpacked(answer, nullptr);
    }
};

// Whether a notice is the agent's answer that our request with this number is done.
bool is_answer(std::string_view notice, int32_t oid) {
    if (notice.empty()) {
        return false;
    }
    const std::unique_ptr<PMng__UiOperate, AnswerFree> answer(p_mng__ui_operate__unpack(
        nullptr, notice.size() - 1, reinterpret_cast<const uint8_t*>(notice.data()) + 1));
    return answer && answer->index && answer->rst && answer->rst->result == 0 &&
           std::string_view(answer->index->publisher) == kPublisher && answer->index->oid == oid;
}

long long request_ns(const Links& links, uint32_t policy) {
    static int32_t oid = 0;
    const std::string notice = request_notice(policy, ++oid);
    bench::append_record(links.writer.get(), kRequestKey, kRequests, notice);
    const auto start = Clock::now();
    bench::send_queued(links.writer.get());
    while (!is_answer(bench::payload(bench::next_reply(links.listener.get())), oid)) {
    }
    const std::chrono::nanoseconds took = Clock::now() - start;
    bench::take_replies(links.writer.get());
    return took.count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bare_netconf REDIS_SOCKET\n");
        return 2;
    }
    const Links reports = connect(argv[1], kQuietDatabase, kQuietReports);
    const Links requests = connect(argv[1], kLocalDatabase, kAnswers);
    std::cout << "ready" << std::endl;
    std::string what;
    unsigned number = 0;
    while (std::cin >> what >> number) {
        std::cout << (what == "loop" ? loop_ns(reports, number) : request_ns(requests, number))
                  << std::endl;
    }
}
