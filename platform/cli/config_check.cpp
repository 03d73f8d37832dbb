#include "platform/cli/config_check.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/cli/caller.h"
#include "platform/cli/config_target.h"

namespace qv::cli {

std::optional<std::string> read_as(const Caller* caller, const std::string& path,
                                   std::string& reason) {
    std::optional<std::string> text = read_config_from(open_as(caller, path));
    if (!text) {
        reason = errno == ELOOP    ? "It is a symbolic link"
                 : errno == EINVAL ? "It is not a regular file"
                                   : std::strerror(errno);
    }
    return text;
}

Result check_file(const Caller* caller, const std::string& path) {
    std::string reason;
    const std::optional<std::string> text = read_as(caller, path, reason);
    if (!text) {
        return {1, path + ": " + reason + ".\n"};
    }
    std::vector<ConfigFault> faults = find_faults(*text, kMaxReportedFaults + 1);
    const bool more = faults.size() > kMaxReportedFaults;
    faults.resize(more ? kMaxReportedFaults : faults.size());
    Result result;
    for (const ConfigFault& fault : faults) {
        const std::string line = fault.line != 0 ? ":" + std::to_string(fault.line) : "";
        result.output += path + line + ": " + fault.reason + "\n";
    }
    if (more) {
        result.output += path + ": More lines are bad than are shown.\n";
    }
    result.code = faults.empty() ? 0 : 1;
    return result;
}

}  // namespace qv::cli
