#include "platform/cli/typed_line.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>

#include "platform/cli/blanks.h"
#include "platform/cli/command_trees.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

constexpr std::string_view kDo = "do";

// Whether the first word is complete: a blank follows it.
bool first_word_is_whole(std::string_view line) {
    const std::string_view word = first_word(line);
    return !word.empty() && word.end() != line.end();
}

// The line after the word "do".
std::optional<std::string_view> rest_after_do(std::string_view line) {
    const std::string_view word = first_word(line);
    if (word != kDo || !first_word_is_whole(line)) {
        return {};
    }
    return rest_after(line, word);
}

// The bit of a port's type in cli_pcdb::ifrange_types. The types that take the commands of a
// switched port share the bits of the mask that programs test; the others have one of their own.
uint32_t type_bit(uint32_t type) {
    constexpr uint32_t kSwitched[] = {0, 1, 2, 7, 8, 16, 18, 27, 28};
    constexpr uint32_t kFirst = 2;
    constexpr uint32_t kOther = 31;
    const bool switched = type >= kFirst && type - kFirst < std::size(kSwitched);
    return 1U << (switched ? kSwitched[type - kFirst] : kOther);
}

Command parse_in(const SessionState& session, const char* mode, const cli_node* root,
                 std::string_view line) {
    Command command;
    command.mode = mode;
    command.line = line;
    const uint32_t prefix = take_prefix(command.line);
    command.pcdb = make_context(session, mode, prefix, 0);
    cli_walk walk(cli_walk::Purpose::kExecute, &command.pcdb);
    command.parsed = walk.parse(root, command.line);
    if (command.parsed.fault == Fault::kPrefix) {
        command.parsed.wrong = first_word(line);
    }
    return command;
}

// Whether the line, without its prefix, is one that configures.
bool configures(const SessionState& session, const char* mode, std::string_view line) {
    cli_pcdb pcdb = make_context(session, mode, 0, CLI_FLAG_HELP);
    cli_walk walk(cli_walk::Purpose::kExecute, &pcdb);
    return walk.parse(config_commands_root(mode), line).handler != nullptr;
}

// Parses "no LINE" for as many words of a whole line as the command's "no" form takes.
Command parse_typed(const SessionState& session, const char* mode, const cli_node* root,
                    std::string_view line) {
    Command command = parse_in(session, mode, root, line);
    const bool wrong_word =
        command.parsed.fault == Fault::kUnknownWord || command.parsed.fault == Fault::kBadValue;
    if (!wrong_word || session.program || command.pcdb.prefix != CLI_PREFIX_NO ||
        !configures(session, mode, command.line)) {
        return command;
    }
    std::string_view shorter = line;
    for (size_t blank = shorter.find_last_of(kBlanks); blank != std::string_view::npos;
         blank = shorter.find_last_of(kBlanks)) {
        shorter = shorter.substr(0, shorter.find_last_not_of(kBlanks, blank) + 1);
        Command undo = parse_in(session, mode, root, shorter);
        if (undo.parsed.handler) {
            return undo;
        }
    }
    return command;
}

bool takes_other_modes(const SessionState& session) {
    return session.mode != kModeExec && !session.program && !session.from_file;
}

// How far the mode understood the line: to the word at fault, or to the end when the prefix is.
const char* reach(const Command& command) {
    const bool all = command.parsed.fault == Fault::kPrefix;
    return all ? command.line.data() + command.line.size() : command.parsed.wrong.data();
}

bool further(const Command& one, const Command& other) {
    return reach(one) > reach(other);
}

std::vector<Hint> hints_in(const SessionState& session, const char* mode, const cli_node* root,
                           std::string_view line) {
    std::string_view rest = line;
    const uint32_t prefix = take_prefix(rest);
    // "no" without a blank after it is still a word to complete.
    const bool whole = prefix == 0 || rest.empty();
    cli_pcdb pcdb = make_context(session, mode, whole ? 0 : prefix, CLI_FLAG_HELP);
    cli_walk walk(cli_walk::Purpose::kHelp, &pcdb);
    return walk.hints(root, whole ? line : rest);
}

void append(std::vector<Hint>& hints, std::vector<Hint> more) {
    for (Hint& hint : more) {
        const bool known = std::any_of(hints.begin(), hints.end(),
                                       [&](const Hint& other) { return other.word == hint.word; });
        if (!known) {
            hints.push_back(std::move(hint));
        }
    }
}

// The words that may begin a line in front of, or in place of, the commands of the mode.
std::vector<Hint> first_words(const SessionState& session, std::string_view line) {
    std::vector<Hint> hints;
    const auto offer = [&](std::string_view word, const char* help) {
        if (word.starts_with(first_word(line))) {
            hints.push_back({std::string(word), help, true});
        }
    };
    offer("no", "Take a command back");
    if (takes_other_modes(session)) {
        offer(kDo, "Run a command of the first mode");
    }
    return hints;
}

void sort_keywords_first(std::vector<Hint>& hints) {
    const auto slots = std::stable_partition(hints.begin(), hints.end(),
                                             [](const Hint& hint) { return hint.literal; });
    std::sort(hints.begin(), slots, [](const Hint& a, const Hint& b) { return a.word < b.word; });
}

}  // namespace

std::string_view first_word(std::string_view line) {
    const size_t start = std::min(line.find_first_not_of(kBlanks), line.size());
    return line.substr(start, line.find_first_of(kBlanks, start) - start);
}

std::string_view rest_after(std::string_view line, std::string_view word) {
    return line.substr(static_cast<size_t>(word.data() - line.data()) + word.size());
}

uint32_t take_prefix(std::string_view& line) {
    const std::string_view word = first_word(line);
    const uint32_t prefix = word == "no"        ? CLI_PREFIX_NO
                            : word == "default" ? CLI_PREFIX_DEFAULT
                                                : 0;
    if (prefix != 0) {
        line = rest_after(line, word);
    }
    return prefix;
}

cli_pcdb make_context(const SessionState& session, std::string_view mode, uint32_t prefix,
                      unsigned long flags) {
    cli_pcdb pcdb{};
    pcdb.flags = flags;
    pcdb.prefix = prefix;
    std::snprintf(pcdb.mode, sizeof pcdb.mode, "%.*s", static_cast<int>(mode.size()), mode.data());
    if (mode == kModeInterface) {
        pcdb.ifx = session.ifx;
    }
    if (mode == kModeRange) {
        for (const uint64_t ifx : session.range) {
            const Port* port = platform().ports().find(static_cast<uint32_t>(ifx));
            pcdb.ifrange_types |= port ? type_bit(port->type) : 0;
        }
    }
    return pcdb;
}

Command find_own_command(const SessionState& session, std::string_view line) {
    const char* const mode = session.mode.c_str();
    return parse_typed(session, mode, cli_get_mode_root(mode), line);
}

Command find_command(const SessionState& session, std::string_view line) {
    Command own = find_own_command(session, line);
    if (own.parsed.handler || !takes_other_modes(session)) {
        return own;
    }
    if (const auto rest = rest_after_do(line)) {
        return parse_in(session, kModeExec, cli_get_mode_root(kModeExec), *rest);
    }
    if (own.parsed.fault == Fault::kAmbiguousWord) {
        return own;
    }
    Command global = parse_typed(session, kModeConfig, cli_get_mode_root(kModeConfig), line);
    if (global.parsed.handler) {
        return global;
    }
    Command show = parse_in(session, kModeExec, show_commands_root(), line);
    if (show.parsed.handler || further(show, own)) {
        return show;
    }
    // When neither mode knows the word, the session's own one reports it.
    return further(global, own) && global.parsed.fault != Fault::kUnknownWord ? global : own;
}

bool changes_configuration(const SessionState& session, const Command& command) {
    const cli_node* const root = config_commands_root(command.mode);
    cli_pcdb pcdb = make_context(session, command.mode, command.pcdb.prefix, CLI_FLAG_HELP);
    cli_walk walk(cli_walk::Purpose::kExecute, &pcdb);
    return root != nullptr && walk.parse(root, command.line).handler != nullptr;
}

std::vector<Hint> hints_for(const SessionState& session, std::string_view line) {
    const bool others = takes_other_modes(session);
    if (const auto rest = rest_after_do(line); others && rest) {
        std::vector<Hint> hints = hints_in(session, kModeExec, cli_get_mode_root(kModeExec), *rest);
        sort_keywords_first(hints);
        return hints;
    }
    const char* const mode = session.mode.c_str();
    std::vector<Hint> hints = hints_in(session, mode, cli_get_mode_root(mode), line);
    const bool begins = !first_word_is_whole(line);
    if (others && hints.empty()) {
        hints = hints_in(session, kModeConfig, cli_get_mode_root(kModeConfig), line);
    }
    if (others && (begins || hints.empty())) {
        append(hints, hints_in(session, kModeExec, show_commands_root(), line));
    }
    if (begins) {
        append(hints, first_words(session, line));
    }
    sort_keywords_first(hints);
    return hints;
}

}  // namespace qv::cli
