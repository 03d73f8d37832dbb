#include "platform/cli/local_time.h"

#include "platform/base/system_log.h"

namespace qv::cli {

std::string local_time(std::chrono::system_clock::time_point time) {
    const std::string text = wall_time_text(time);
    return text.substr(0, text.rfind('.'));
}

}  // namespace qv::cli
