// A command line on a manual clock with a switch of a few ports. One for each process.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/cli/engine.h"
#include "platform/client/port_model.h"
#include "qv/cli.h"
#include "qv/thread.h"
#include "tests/support/test_platform.h"

namespace qv::test {

// Executes requests at once, unless `refusal` has a text.
class PlainSwitch final : public SwitchDriver {
 public:
    void start(PortSink& sink) override { sink_ = &sink; }
    std::string set_admin(uint32_t ifx, bool up) override;
    std::string set_mode(uint32_t ifx, uint32_t mode) override;
    std::map<uint32_t, PortCounters> counters(uint32_t ifx) override;

    void add(const std::string& name, uint32_t ifx, uint32_t type = 2);
    void remove(uint32_t ifx);
    void rename(uint32_t ifx, const std::string& name);
    void join_aggregate(uint32_t ifx, uint32_t aggregate);

    std::string refusal;
    std::map<uint32_t, PortCounters> traffic;  // the answer to requests for counters
    std::vector<uint32_t> asked_counters;      // each request for counters
    std::function<void()> before_change;       // called before an admin state changes

 private:
    PortSink* sink_ = nullptr;
    std::map<uint32_t, Port> ports_;
};

// A folder that is removed with the object.
class TestFolder {
 public:
    TestFolder();
    ~TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
    std::string path_;
};

// While it exists, this process cannot write beyond the first `bytes` of a file, as on a full
// disk.
class FullDisk {
 public:
    explicit FullDisk(size_t bytes);
    ~FullDisk();
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

 private:
    size_t before_;
};

// How many descriptors this process has open.
size_t open_descriptors();

std::string read_text(const std::string& path);
void write_text(const std::string& path, const std::string& text);

class CliRig {
 public:
    // swp1 (index 101) to swp4 (104); the saved configuration is `saved()`, which does not exist.
    // The rig replaces the socket and the saved configuration in `settings`.
    explicit CliRig(const PlatformConfig& settings = {});

    std::string saved() const { return folder.file("startup.conf"); }
    // Executes a line in the rig's own session and returns its output; `code` keeps its result.
    std::string type(const std::string& line);
    void announce_ready();

    TestFolder folder;
    PlainSwitch hardware;
    PortModel model{hardware};
    TestPlatform platform;
    qv_thread_master* master = nullptr;
    cli::SessionState session;
    int code = 0;
};

}  // namespace qv::test
