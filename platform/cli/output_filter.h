// The filter after "|" in a show command: selects lines of the output, or its format.
// Loop thread only.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/engine.h"
#include "platform/cli/walk.h"

namespace qv::cli {

class OutputFilter;

// A line split at its filter. Only a show command has one: in any other line "|" is an ordinary
// word.
struct FilteredLine {
    std::string_view command;
    std::shared_ptr<OutputFilter> filter;  // null: everything is shown as it is
    std::string error;  // "% REASON" for a filter that cannot be used, else empty
};
FilteredLine take_filter(std::string_view line);

// Changes what the command printed. A refusal stays as it is; the result code never changes.
void apply(const OutputFilter& filter, int code, std::string& output);

// While it exists, the current command has this filter, or none for null.
class FilterScope {
 public:
    explicit FilterScope(OutputFilter* filter);
    ~FilterScope();
    FilterScope(const FilterScope&) = delete;
    FilterScope& operator=(const FilterScope&) = delete;

 private:
    OutputFilter* const before_;
};

// Whether the current command has a filter. In an interface mode "sh" is not a show command.
bool filtering();

// The words that can be typed after "|"; nothing when the line has none. `line` may end in half a
// word.
std::optional<std::vector<Hint>> filter_hints(std::string_view line);
// Whether the line may be followed by "|".
bool takes_filter(std::string_view line);

// ---- For the handlers of show commands ----

// Whether the caller wants JSON. A handler that does not ask has its text lines wrapped.
bool json_wanted();
// Prints the whole answer of a command for which json_wanted() is true.
void print_json(const nlohmann::ordered_json& answer);

}  // namespace qv::cli
