#include "tests/support/test_platform.h"

#include <stdexcept>

namespace qv::test {
namespace {

template <typename T>
T& present(T* thing, const char* name) {
    if (thing == nullptr) {
        throw std::logic_error(std::string("test: no ") + name);
    }
    return *thing;
}

}  // namespace

void RecordingLog::write(const SystemLogMessage& message) {
    std::string line(message.facility);
    line += "-" + std::to_string(message.severity) + "-";
    line += message.mnemonic;
    line += ": ";
    line += message.text;
    const MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
}

std::vector<std::string> RecordingLog::lines() const {
    const MutexLock lock(mutex_);
    return lines_;
}

TestPlatform::TestPlatform() {
    install_platform(*this);
}

void TestPlatform::run_for(Duration step) {
    test::run_for(loop(), manual_clock, step);
}
void TestPlatform::run_ready() {
    test::run_ready(loop(), manual_clock);
}

MemoryStore& TestPlatform::memory_store() {
    return present(memory_store_.get(), "loop");
}
EventLoop& TestPlatform::loop() {
    return present(loop_, "loop");
}
PortModel& TestPlatform::ports() {
    return present(port_model, "ports");
}

ForwardingDriver& TestPlatform::forwarding() {
    return present(forwarding_plane, "forwarding plane");
}

StoreDriver& TestPlatform::store() {
    return store_in_use != nullptr ? *store_in_use : memory_store();
}

void TestPlatform::attach_loop(EventLoop& loop) {
    if (refuse_loop) {
        throw std::runtime_error("test: no loop wanted");
    }
    loop_ = &loop;
    memory_store_ = std::make_unique<MemoryStore>(loop);
    background_ = std::make_unique<InlineBackground>(loop);
}

}  // namespace qv::test
