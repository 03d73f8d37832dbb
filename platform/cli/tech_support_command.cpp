// "show tech-support": everything that somebody who helps from afar asks for first.
//
// The answer is made of the outputs of other show commands, each under a heading. One of them runs
// in a turn of the loop, so that the loop is never held up for longer than by the longest of them.
// A piece that is refused, or fails, says so, and the rest follows.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <list>
#include <string>
#include <utility>

#include "platform/base/config.h"
#include "platform/base/supervisor.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/local_time.h"
#include "platform/cli/switch_commands.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

constexpr size_t kMaxPieceBytes = size_t{1024} * 1024;
constexpr size_t kMaxAnswerBytes = size_t{4} * 1024 * 1024;

// ---- Pieces that no command shows ----

// When the commands were added, which is at the start of the process.
struct Start {
    Time on_loop;
    std::chrono::system_clock::time_point on_wall;
};
Start g_start;

std::string process_text() {
    const auto up = std::chrono::duration_cast<std::chrono::seconds>(platform().clock().now() -
                                                                     g_start.on_loop);
    return "Process: " + std::to_string(getpid()) +
           "\nNow: " + local_time(std::chrono::system_clock::now()) +
           "\nSince: " + local_time(g_start.on_wall) + "\nUptime: " + std::to_string(up.count()) +
           " s\nState: " + status_line() + "\n";
}

std::string platform_file_text() {
    const char* const path = std::getenv("LDA_PLATFORM");
    return path == nullptr ? "LDA_PLATFORM is not set: the defaults are in force.\n"
                           : path + std::string(":\n") + platform_file_without_secrets(path);
}

// ---- All pieces ----

struct Piece {
    const char* heading;  // the line that is executed, where `make` is null
    std::string (*make)();
};

constexpr Piece kPieces[] = {{"show version", nullptr},
                             {"process", process_text},
                             {"show role", nullptr},
                             {"platform file", platform_file_text},
                             {"show running-config", nullptr},
                             {"show startup-config", nullptr},
                             {"show interfaces", nullptr},
                             {"show interfaces status", nullptr},
                             {"show loop-detect detail", nullptr},
                             {"show lda detect-result", nullptr},
                             {"show errdisable", nullptr},
                             {"show errdisable recovery", nullptr},
                             {"show loop-detect history", nullptr},
                             {"show logging", nullptr},
                             {"show tarn", nullptr},
                             {"debug lda storm-detect", nullptr},
                             {"show debugging", nullptr},
                             {"show users", nullptr},
                             {"show notifications", nullptr}};

std::string text_of(const Piece& piece, uint64_t session_number) {
    try {
        if (piece.make != nullptr) {
            return piece.make();
        }
        SessionState session;
        session.number = session_number;  // marked by "show users"
        return execute(session, piece.heading).output;
    } catch (const std::exception& problem) {
        return std::string("% ") + problem.what() + "\n";
    }
}

// Cuts `text` to `limit` bytes, at the end of a line where there is one.
void cut(std::string& text, size_t limit) {
    if (text.size() <= limit) {
        return;
    }
    const size_t size = text.size();
    const size_t end = text.rfind('\n', limit);
    text.resize(end == std::string::npos ? limit : end);
    text += "\n% Cut: it has " + std::to_string(size) + " bytes.\n";
}

// ---- The answer ----

class Collector {
 public:
    explicit Collector(uint64_t session_number) : session_number_(session_number) {}

    // Adds one piece. Returns false when there was none left.
    bool add_next() {
        if (next_ == std::size(kPieces)) {
            return false;
        }
        const Piece& piece = kPieces[next_++];
        std::string text = text_of(piece, session_number_);
        cut(text,
            std::min(kMaxPieceBytes, kMaxAnswerBytes - std::min(kMaxAnswerBytes, answer_.size())));
        const bool ended = text.empty() || text.back() == '\n';
        answer_.append(next_ == 1 ? "" : "\n")
            .append("==== ")
            .append(piece.heading)
            .append(" ====\n");
        answer_.append(text).append(ended ? "" : "\n");
        return true;
    }

    const std::string& answer() const { return answer_; }

 private:
    const uint64_t session_number_;
    size_t next_ = 0;
    std::string answer_;
};

// An answer in the making, for a session that waits for it.
struct UnfinishedAnswer {
    Collector collector;
    Completion answer;
    EventLoop::Handle turn = {};
};
using AnswerList = std::list<UnfinishedAnswer>;

AnswerList& unfinished_answers() {
    static auto& instance = *new AnswerList;  // its turns are those of the process's loop
    return instance;
}

void take_turn(AnswerList::iterator pending) {
    if (pending->collector.add_next()) {
        pending->turn = platform().loop().defer([pending] { take_turn(pending); });
        return;
    }
    const Completion answer = std::move(pending->answer);
    Result result{0, pending->collector.answer()};
    unfinished_answers().erase(pending);
    answer(std::move(result));
}

int show_tech_support(cli_pcdb*) {
    const uint64_t number = current_session()->number;
    if (Completion answer = defer()) {
        AnswerList& list = unfinished_answers();
        take_turn(list.insert(list.end(), {Collector(number), std::move(answer)}));
        return 0;
    }
    Collector collector(number);
    while (collector.add_next()) {
    }
    cli_printf("%s", collector.answer().c_str());
    return 0;
}

}  // namespace

void register_tech_support_command() {
    g_start = {platform().clock().now(), std::chrono::system_clock::now()};
    attach(CLI_CHAIN_SHOW,
           keyword("tech-support", "All that is needed to help from afar",
                   end_of_line(show_tech_support)),
           "show tech-support");
}

}  // namespace qv::cli
