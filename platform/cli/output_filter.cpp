#include "platform/cli/output_filter.h"

#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/cli/blanks.h"
#include "platform/cli/typed_line.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

enum class Kind { kInclude, kExclude, kBegin, kCount, kJson };

struct Name {
    std::string_view word;
    const char* help;
    Kind kind;
    bool has_pattern;
};

constexpr std::array kNames = {
    Name{"begin", "From the first line that matches", Kind::kBegin, true},
    Name{"count", "Number of lines", Kind::kCount, false},
    Name{"exclude", "Lines that do not match", Kind::kExclude, true},
    Name{"include", "Lines that match", Kind::kInclude, true},
    Name{"json", "As JSON", Kind::kJson, false},
};

bool is_show(std::string_view line) {
    std::string_view word = first_word(line);
    if (word == "do") {
        word = first_word(rest_after(line, word));
    }
    return !word.empty() && std::string_view("show").starts_with(word);
}

// Finds the "|" of a show command: a word of its own, or the first byte of one.
size_t find_bar(std::string_view line) {
    for (size_t bar = line.find('|'); bar != std::string_view::npos;
         bar = line.find('|', bar + 1)) {
        if (bar > 0 && kBlanks.find(line[bar - 1]) != std::string_view::npos) {
            return is_show(line.substr(0, bar)) ? bar : std::string_view::npos;
        }
    }
    return std::string_view::npos;
}

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

// On one line. Bytes that are not UTF-8 are replaced.
std::string render(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

// The library's matching takes time in proportion to the text and little memory, whatever the
// pattern: a badly chosen one cannot block the loop.
class OutputFilter {
 public:
    explicit OutputFilter(Kind kind, std::string_view pattern)
        : kind_(kind), pattern_({pattern.data(), pattern.size()}, RE2::Quiet) {}

    // The reason why the pattern cannot be used; empty when it can.
    std::string fault() const { return pattern_.ok() ? "" : pattern_.error(); }
    bool json() const { return kind_ == Kind::kJson; }
    void set_answered() { answered_ = true; }

    std::string filtered(const std::string& output) const {
        const std::vector<std::string_view> lines = lines_of(output);
        if (kind_ == Kind::kCount) {
            return std::to_string(lines.size()) + "\n";
        }
        if (kind_ == Kind::kJson) {
            return answered_ ? output : render({{"lines", lines}});
        }
        std::string shown;
        bool begun = false;
        for (const std::string_view line : lines) {
            const bool fits = begun || matches(line);
            begun = fits && kind_ == Kind::kBegin;
            if (fits != (kind_ == Kind::kExclude)) {
                shown.append(line).append("\n");
            }
        }
        return shown;
    }

 private:
    bool matches(std::string_view line) const {
        return RE2::PartialMatch({line.data(), line.size()}, pattern_);
    }

    const Kind kind_;
    const RE2 pattern_;
    bool answered_ = false;  // the handler has printed JSON itself
};

namespace {

OutputFilter* g_filter = nullptr;  // of the current command

std::string names_that_begin_with(std::string_view word) {
    std::string names;
    for (const Name& name : kNames) {
        if (name.word.starts_with(word)) {
            names.append(names.empty() ? "" : ", ").append(name.word);
        }
    }
    return names;
}

// Makes the filter described by `text`, which begins after the "|".
FilteredLine with_filter(std::string_view command, std::string_view text) {
    const std::string_view word = first_word(text);
    if (word.empty()) {
        return {command, nullptr, "% Incomplete command."};
    }
    const auto fits = [word](const Name& name) {
        return name.word.starts_with(word);
    };
    const auto* const name = std::find_if(kNames.begin(), kNames.end(), fits);
    if (name == kNames.end()) {
        return {command, nullptr,
                "% Unknown filter: '" + std::string(word.substr(0, 40)) + "' (" +
                    names_that_begin_with("") + ")."};
    }
    const std::string_view pattern = trimmed(rest_after(text, word));
    const std::string quoted_name = "'" + std::string(name->word) + "'";
    if (name->has_pattern && pattern.empty()) {
        return {command, nullptr, "% Incomplete command."};
    }
    if (!name->has_pattern && !pattern.empty()) {
        return {command, nullptr, "% The filter " + quoted_name + " takes no pattern."};
    }
    auto filter = std::make_shared<OutputFilter>(name->kind, pattern);
    if (const std::string fault = filter->fault(); !fault.empty()) {
        return {command, nullptr, "% Invalid pattern: " + fault + "."};
    }
    return {command, std::move(filter), {}};
}

}  // namespace

FilteredLine take_filter(std::string_view line) {
    const size_t bar = find_bar(line);
    if (bar == std::string_view::npos) {
        return {line, nullptr, {}};
    }
    return with_filter(line.substr(0, bar), line.substr(bar + 1));
}

void apply(const OutputFilter& filter, int code, std::string& output) {
    if (code == 0) {
        output = filter.filtered(output);
    }
}

FilterScope::FilterScope(OutputFilter* filter) : before_(std::exchange(g_filter, filter)) {}

FilterScope::~FilterScope() {
    g_filter = before_;
}

std::optional<std::vector<Hint>> filter_hints(std::string_view line) {
    const size_t bar = find_bar(line);
    if (bar == std::string_view::npos) {
        return {};
    }
    const std::string_view text = line.substr(bar + 1);
    const std::string_view word = first_word(text);
    const std::string_view rest = rest_after(text, word);
    // A completion continues the last word, and "|in" is one word.
    const bool apart = !text.empty() && kBlanks.find(text.front()) != std::string_view::npos;
    const std::string_view joined = apart ? "" : "|";
    std::vector<Hint> hints;
    for (const Name& name : kNames) {
        if (!name.word.starts_with(word)) {
            continue;
        }
        if (rest.empty()) {
            hints.push_back({std::string(joined).append(name.word), name.help, true});
        } else if (!name.has_pattern) {
            hints.push_back({"<cr>", "", false});
        } else if (trimmed(rest).empty()) {
            hints.push_back({"PATTERN", "Regular expression", false});
        }
    }
    return hints;
}

bool takes_filter(std::string_view line) {
    return is_show(line);
}

bool filtering() {
    return g_filter != nullptr;
}

bool json_wanted() {
    return g_filter && g_filter->json();
}

void print_json(const Json& answer) {
    cli_printf("%s", render(answer).c_str());
    g_filter->set_answered();
}

}  // namespace qv::cli
