// The child first lets go of the session's files, because a lock of the session lasts until the
// last process that has the file open is gone, and says so with kReady. Until then the session does
// not let itself be ended.
//
// The child's answer is a list of numbers: kFound or kNoNodes, the time taken in microseconds, then
// how many nodes follow, then the position of each in document order. An answer that is not whole
// means that the child has died: its timer of processor time has ended it, or the expression has
// crashed libyang.
#include "services/netconf/xpath.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <optional>
#include <unordered_map>
#include <utility>

#include "platform/base/lock_file.h"
#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

using namespace std::chrono_literals;

using Nodes = std::vector<const lyd_node*>;
using Answer = std::vector<uint32_t>;

constexpr uint32_t kReady = 0;
constexpr uint32_t kFound = 1;
constexpr uint32_t kNoNodes = 2;
constexpr size_t kHeader = 3;  // numbers before the positions
constexpr int kMostNested = 4;

RpcError denied(const std::string& message) {
    return {NC_ERR_RES_DENIED, NC_ERR_TYPE_PROT, message};
}

int nested_predicates(const std::string& xpath) {
    int depth = 0;
    int deepest = 0;
    char quote = '\0';  // of the literal that is open
    for (const char c : xpath) {
        if (quote != '\0') {
            quote = c == quote ? '\0' : quote;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '[' || c == ']') {
            depth += c == '[' ? 1 : -1;
            deepest = std::max(deepest, depth);
        }
    }
    return deepest;
}

// In document order.
void append(const lyd_node* siblings, Nodes& nodes) {
    const lyd_node* node = nullptr;
    LY_LIST_FOR(siblings, node) {
        nodes.push_back(node);
        append(lyd_child(node), nodes);
    }
}

// By this process so far.
uint32_t processor_time_us() {
    timespec taken{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &taken);
    return static_cast<uint32_t>(taken.tv_sec * 1'000'000 + taken.tv_nsec / 1000);
}

Answer evaluate(const lyd_node& tree, const Nodes& nodes, const std::string& xpath) {
    ly_set* found = nullptr;
    const uint32_t begin_us = processor_time_us();
    // The context node is the root of the data (RFC 6241, section 8.9.1), for relative paths, too.
    const bool done = lyd_find_xpath4(nullptr, &tree, xpath.c_str(), LY_VALUE_JSON, nullptr,
                                      nullptr, &found) == LY_SUCCESS;
    const uint32_t taken_us = processor_time_us() - begin_us;
    if (!done) {
        return {kNoNodes, taken_us, 0};
    }
    std::unordered_map<const lyd_node*, uint32_t> positions;
    for (uint32_t at = 0; at < nodes.size(); at++) {
        positions[nodes[at]] = at;
    }
    Answer answer{kFound, taken_us, found->count};
    for (uint32_t at = 0; at < found->count; at++) {
        answer.push_back(positions.at(found->dnodes[at]));
    }
    return answer;
}

// The handlers of the session would log its end; the timer's signal ends this process. So does the
// end of the session, also of one that has ended already.
void limit_this_process(std::chrono::microseconds limit, pid_t session) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != session) {
        _exit(1);
    }
    for (const int number :
         {SIGTERM, SIGHUP, SIGINT, SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGPROF}) {
        signal(number, SIG_DFL);
    }
    itimerval timer{};
    timer.it_value.tv_sec = limit.count() / 1'000'000;
    timer.it_value.tv_usec = limit.count() % 1'000'000;
    setitimer(ITIMER_PROF, &timer, nullptr);
}

// Leaves standard error open, for the sanitizers.
void close_all_but(int fd) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close_range(STDERR_FILENO + 1, static_cast<unsigned>(fd) - 1, 0);
    close_range(static_cast<unsigned>(fd) + 1, ~0U, 0);
}

// Delays the signals that end the session.
class EndDelayed {
 public:
    EndDelayed() {
        sigset_t ending;
        sigemptyset(&ending);
        for (const int number : {SIGTERM, SIGHUP, SIGINT}) {
            sigaddset(&ending, number);
        }
        pthread_sigmask(SIG_BLOCK, &ending, &before_);
    }
    ~EndDelayed() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    EndDelayed(const EndDelayed&) = delete;
    EndDelayed& operator=(const EndDelayed&) = delete;

 private:
    sigset_t before_{};
};

void wait_for_word(int fd) {
    uint32_t word = 0;
    while (read(fd, &word, sizeof word) < 0 && errno == EINTR) {
    }
}

void write_all(int fd, const Answer& answer) {
    const auto* bytes = reinterpret_cast<const char*>(answer.data());
    size_t left = answer.size() * sizeof answer[0];
    for (ssize_t written = 0; left > 0 && (written = write(fd, bytes, left)) > 0; left -= written) {
        bytes += written;
    }
}

// Empty when it is not whole.
Answer read_all(int fd) {
    std::string bytes;
    std::array<char, 16384> piece;
    for (ssize_t length = 1; length != 0;) {
        length = read(fd, piece.data(), piece.size());
        if (length < 0 && errno != EINTR) {
            return {};
        }
        bytes.append(piece.data(), length > 0 ? static_cast<size_t>(length) : 0);
    }
    Answer answer(bytes.size() / sizeof(uint32_t));
    bytes.copy(reinterpret_cast<char*>(answer.data()), answer.size() * sizeof answer[0]);
    return answer.size() >= kHeader && answer.size() == kHeader + answer[2] ? answer : Answer();
}

// Returns -1 when there can be no child.
pid_t fork_without_libyang_in_use() {
    const std::lock_guard lock(libyang_in_use());
    return fork();
}

Answer evaluate_in_a_child(const lyd_node& tree, const Nodes& nodes, const std::string& xpath,
                           std::chrono::microseconds limit) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    const qv::File output(ends[0]);
    qv::File input(ends[1]);
    const pid_t session = getpid();
    std::optional<EndDelayed> delayed(std::in_place);
    const pid_t child = fork_without_libyang_in_use();
    if (child == 0) {
        limit_this_process(limit, session);
        close_all_but(input.fd());
        write_all(input.fd(), {kReady});
        write_all(input.fd(), evaluate(tree, nodes, xpath));
        _exit(0);
    }
    input = qv::File();
    wait_for_word(output.fd());
    delayed.reset();
    Answer answer = read_all(output.fd());
    while (child > 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return answer;
}

}  // namespace

std::mutex& libyang_in_use() {
    static std::mutex& instance = *new std::mutex;
    return instance;
}

std::vector<const lyd_node*> find_by_xpath(const lyd_node& tree, const std::string& xpath,
                                           std::chrono::microseconds& left) {
    if (nested_predicates(xpath) > kMostNested) {
        throw denied("the filter nests predicates more than " + std::to_string(kMostNested) +
                     " deep");
    }
    Nodes nodes;
    append(lyd_first_sibling(&tree), nodes);
    const std::chrono::microseconds limit = std::exchange(left, 0us);
    const Answer answer = limit > 0us ? evaluate_in_a_child(tree, nodes, xpath, limit) : Answer();
    if (answer.empty()) {
        throw denied("the filter takes too much time or memory");
    }
    left = std::max(limit - std::chrono::microseconds(answer[1]), 0us);
    if (answer[0] == kNoNodes) {
        throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT,
                       "the filter \"" + xpath + "\" selects no nodes");
    }
    Nodes found;
    for (size_t at = kHeader; at < answer.size(); at++) {
        found.push_back(nodes.at(answer[at]));
    }
    return found;
}

}  // namespace netconf
