// Floor of the report rate: subscribes to the loop reports and unpacks them. A report of a loop is
// the end mark of a flood: it is answered with a notice of a loop entry, as the agent would.
//
//     bare_unpack REDIS_SOCKET
#include "bench/redis_link.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bare_unpack REDIS_SOCKET\n");
        return 2;
    }
    const bench::Connection reports = bench::connect(argv[1]);
    const bench::Connection answers = bench::connect(argv[1]);
    bench::subscribe(reports.get(), bench::kReports);
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const bench::Reply message = bench::next_reply(reports.get());
        const bench::Report report = bench::unpack(bench::payload(message));
        if (report && report->is_loop != 0) {
            redisAppendCommand(answers.get(), "PUBLISH %s %b", bench::kEntries, "\0", size_t{1});
            bench::next_reply(answers.get());
        }
    }
}
