// Measures the NETCONF server as its client: starts a session, subscribes, and then times each
// request.
//
//     netconf_probe REDIS_SOCKET LDA_NETCONF [ARGUMENT]...
//
// Standard output says "ready" once subscribed. Then each line of standard input is
// answered with nanoseconds:
//
//     loop IFX NAME    from before the report of a loop is sent to Redis until the notification
//                      of this loop has come from the session
//     edit POLICY      from before <edit-config> is written to the session until <ok/> has come
//
// Any error, or a wait of five seconds, ends the program.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>

#include "bench/redis_link.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kLate{5};

constexpr std::string_view kEndOfHello = "]]>]]>";
constexpr std::string_view kEndOfMessage = "\n##\n";
constexpr char kHello[] =
    R"(<hello xmlns="urn:ietf:params:xml:ns:netconf:base:1.0"><capabilities>)"
    R"(<capability>urn:ietf:params:netconf:base:1.1</capability></capabilities></hello>]]>]]>)";
constexpr char kSubscribe[] =
    R"(<create-subscription xmlns="urn:ietf:params:xml:ns:netconf:notification:1.0"/>)";

// The program at the other end of two pipes, as sshd starts it.
class Session {
 public:
    explicit Session(char** command) {
        int requests[2];
        int messages[2];
        if (pipe2(requests, O_CLOEXEC) != 0 || pipe2(messages, O_CLOEXEC) != 0) {
            bench::fail("pipe");
        }
        posix_spawn_file_actions_t ends;
        posix_spawn_file_actions_init(&ends);
        posix_spawn_file_actions_adddup2(&ends, requests[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&ends, messages[1], STDOUT_FILENO);
        pid_t child = 0;
        if (posix_spawn(&child, command[0], &ends, nullptr, command, environ) != 0) {
            bench::fail(command[0]);
        }
        posix_spawn_file_actions_destroy(&ends);
        close(requests[0]);
        close(messages[1]);
        to_ = requests[1];
        from_ = messages[0];
        read_until(kEndOfHello);
        write_all(kHello);
    }

    void request(std::string_view body) {
        const std::string text =
            R"(<rpc xmlns="urn:ietf:params:xml:ns:netconf:base:1.0" message-id=")" +
            std::to_string(++message_id_) + "\">" + std::string(body) + "</rpc>";
        write_all("\n#" + std::to_string(text.size()) + "\n" + text + "\n##\n");
    }

    // The next message, a reply or a notification, in its frame.
    std::string read() { return read_until(kEndOfMessage); }

    // Discards notifications from between the samples.
    void forget_arrived() {
        pollfd waiting{.fd = from_, .events = POLLIN, .revents = 0};
        while (poll(&waiting, 1, 0) == 1) {
            read();
        }
        arrived_.clear();
    }

    // Reads messages until one has all of `texts` in it.
    void read_until_all(std::initializer_list<std::string_view> texts) {
        for (;;) {
            const std::string message = read();
            size_t found = 0;
            for (const std::string_view text : texts) {
                found += message.find(text) != std::string::npos ? 1 : 0;
            }
            if (found == texts.size()) {
                return;
            }
            if (message.find("<rpc-error>") != std::string::npos) {
                std::fprintf(stderr, "refused: %s\n", message.c_str());
                std::exit(1);
            }
        }
    }

 private:
    void write_all(std::string_view bytes) {
        if (write(to_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            bench::fail("write to the session");
        }
    }

    std::string read_until(std::string_view end) {
        size_t at = 0;
        while ((at = arrived_.find(end)) == std::string::npos) {
            pollfd waiting{.fd = from_, .events = POLLIN, .revents = 0};
            char bytes[16384];
            const bool there = poll(&waiting, 1, std::chrono::milliseconds(kLate).count()) == 1;
            const ssize_t size = there ? ::read(from_, bytes, sizeof bytes) : -1;
            if (size <= 0) {
                std::fprintf(stderr, "the session has ended or is late\n");
                std::exit(1);
            }
            arrived_.append(bytes, static_cast<size_t>(size));
        }
        const std::string message = arrived_.substr(0, at);
        arrived_.erase(0, at + end.size());
        return message;
    }

    int to_ = -1;
    int from_ = -1;
    std::string arrived_;  // of an incomplete message, and anything after it
    int message_id_ = 0;
};

// Nanoseconds for both together.
long long timed(const std::function<void()>& send, const std::function<void()>& receive) {
    const auto start = Clock::now();
    send();
    receive();
    return std::chrono::nanoseconds(Clock::now() - start).count();
}

long long loop_ns(Session& session, redisContext* redis, uint32_t ifx, const std::string& name) {
    const std::string element = "<name>" + name + "</name>";
    bench::append_report(redis, ifx, 1);
    const long long took =
        timed([&] { bench::send_queued(redis); },
              [&] {
                  session.read_until_all({element, "<notify-type>1</notify-type>"});
              });
    bench::take_replies(redis);
    return took;
}

long long edit_ns(Session& session, unsigned policy) {
    const std::string edit =
        "<edit-config><target><running/></target><config>"
        R"(<loop-detect xmlns="urn:qv:yang:qv-loop-detect-server"><loop-policy>)" +
        std::to_string(policy) + "</loop-policy></loop-detect></config></edit-config>";
    return timed([&] { session.request(edit); },
                 [&] {
                     session.read_until_all({"<rpc-reply", "<ok/>"});
                 });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: netconf_probe REDIS_SOCKET LDA_NETCONF [ARGUMENT]...\n");
        return 2;
    }
    const bench::Connection redis = bench::connect(argv[1]);
    Session session(argv + 2);
    session.request(kSubscribe);
    session.read_until_all({"<rpc-reply", "<ok/>"});
    std::cout << "ready" << std::endl;
    std::string what;
    while (std::cin >> what) {
        unsigned number = 0;
        std::cin >> number;
        session.forget_arrived();
        if (what == "loop") {
            std::string name;
            std::cin >> name;
            std::cout << loop_ns(session, redis.get(), number, name) << std::endl;
        } else {
            std::cout << edit_ns(session, number) << std::endl;
        }
    }
}
