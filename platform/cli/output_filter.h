// The filter behind "|" in a show command: selects lines of the output, or its form.
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

// A line taken apart. Only a show command has a filter: in any other line "|" is a word like
// others.
struct FilteredLine {
    std::string_view command;
    std::shared_ptr<OutputFilter> filter;  // null: everything is shown as it is
    std::string error;  // "% REASON" for a filter that cannot be used, else empty
};
FilteredLine take_filter(std::string_view line);

// Changes what the command printed. A refusal stays as it is; the result code never changes.
void apply(const OutputFilter& filter, int code, std::string& output);

// The filter, or null, belongs to the command at hand as long as this lives.
class FilterScope {
 public:
    explicit FilterScope(OutputFilter* filter);
    ~FilterScope();
    FilterScope(const FilterScope&) = delete;
    FilterScope& operator=(const FilterScope&) = delete;

 private:
    OutputFilter* const before_;
};

// Whether the command at hand has a filter. In an interface mode "sh" is no show command.
bool filtering();

// The words that can be typed behind "|"; nothing when the line has none. `line` may end in half a
// word.
std::optional<std::vector<Hint>> filter_hints(std::string_view line);
// Whether the line may be followed by "|".
bool takes_filter(std::string_view line);

// ---- For the handlers of show commands ----

// Whether the answer is wanted as JSON. A handler that does not ask has its text lines wrapped.
bool json_wanted();
// Prints the whole answer of a command that json_wanted() holds for.
void print_json(const nlohmann::ordered_json& answer);

}  // namespace qv::cli
