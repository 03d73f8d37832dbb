#include "platform/driver/embedded/scripted_faults.h"

#include <list>
#include <mutex>

#include "platform/cli/fault_seam.h"

namespace qv::cli {
namespace {

struct Refusal {
    std::string line;
    std::string text;
    int result;
};

struct Faults {
    std::mutex mutex;
    std::list<Refusal> refusals;   // guarded by mutex, oldest first
    unsigned failed_sessions = 0;  // guarded by mutex
};

Faults& faults() {
    static Faults& instance = *new Faults;
    return instance;
}

}  // namespace

void refuse_next_line(std::string line, std::string text, int result) {
    const std::lock_guard lock(faults().mutex);
    faults().refusals.push_back({std::move(line), std::move(text), result});
    g_line_fault = take_refusal;
}

void fail_next_sessions(unsigned count) {
    const std::lock_guard lock(faults().mutex);
    faults().failed_sessions = count;
    g_session_fault = take_session_failure;
}

bool take_refusal(const std::string& line, std::string& text, int& result) {
    const std::lock_guard lock(faults().mutex);
    auto& refusals = faults().refusals;
    for (auto request = refusals.begin(); request != refusals.end(); ++request) {
        if (line.starts_with(request->line)) {
            text = std::move(request->text);
            result = request->result;
            refusals.erase(request);
            return true;
        }
    }
    return false;
}

bool take_session_failure() {
    const std::lock_guard lock(faults().mutex);
    if (faults().failed_sessions == 0) {
        return false;
    }
    --faults().failed_sessions;
    return true;
}

}  // namespace qv::cli
