#include "platform/driver/embedded/scripted_faults.h"

#include <list>

#include "platform/base/mutex.h"
#include "platform/cli/fault_seam.h"

namespace qv::cli {
namespace {

struct Refusal {
    std::string line;
    std::string text;
    int result;
};

struct Faults {
    Mutex mutex;
    std::list<Refusal> refusals GUARDED_BY(mutex);  // oldest first
    unsigned failed_sessions GUARDED_BY(mutex) = 0;
};

Faults& faults() {
    static Faults& instance = *new Faults;
    return instance;
}

}  // namespace

void refuse_next_line(std::string line, std::string text, int result) {
    Faults& scripted = faults();
    const MutexLock lock(scripted.mutex);
    scripted.refusals.push_back({std::move(line), std::move(text), result});
    g_line_fault = take_refusal;
}

void fail_next_sessions(unsigned count) {
    Faults& scripted = faults();
    const MutexLock lock(scripted.mutex);
    scripted.failed_sessions = count;
    g_session_fault = take_session_failure;
}

bool take_refusal(const std::string& line, std::string& text, int& result) {
    Faults& scripted = faults();
    const MutexLock lock(scripted.mutex);
    auto& refusals = scripted.refusals;
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
    Faults& scripted = faults();
    const MutexLock lock(scripted.mutex);
    if (scripted.failed_sessions == 0) {
        return false;
    }
    --scripted.failed_sessions;
    return true;
}

}  // namespace qv::cli
