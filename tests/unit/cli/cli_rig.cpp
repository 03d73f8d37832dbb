#include "tests/unit/cli/cli_rig.h"

#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace qv::test {

std::string PlainSwitch::set_admin(uint32_t ifx, bool up) {
    if (before_change) {
        before_change();
    }
    if (refusal.empty()) {
        ports_.at(ifx).admin_up = up;
        sink_->port_changed(ports_.at(ifx));
    }
    return refusal;
}

std::string PlainSwitch::set_mode(uint32_t ifx, uint32_t mode) {
    if (refusal.empty()) {
        ports_.at(ifx).mode = mode;
        sink_->port_changed(ports_.at(ifx));
    }
    return refusal;
}

std::map<uint32_t, PortCounters> PlainSwitch::counters(uint32_t ifx) {
    asked_counters.push_back(ifx);
    return traffic;
}

void PlainSwitch::add(const std::string& name, uint32_t ifx, uint32_t type) {
    Port port;
    port.ifx = ifx;
    port.name = name;
    port.type = type;
    ports_[ifx] = port;
    sink_->port_added(port);
}

void PlainSwitch::remove(uint32_t ifx) {
    ports_.erase(ifx);
    sink_->port_removed(ifx);
}

void PlainSwitch::rename(uint32_t ifx, const std::string& name) {
    ports_.at(ifx).name = name;
    sink_->port_changed(ports_.at(ifx));
}

void PlainSwitch::join_aggregate(uint32_t ifx, uint32_t aggregate) {
    ports_.at(ifx).aggregate = aggregate;
    sink_->port_changed(ports_.at(ifx));
}

TestFolder::TestFolder() {
    char pattern[] = "/tmp/cli-test-XXXXXX";
    if (!::mkdtemp(pattern)) {
        throw std::runtime_error("no folder for the test");
    }
    path_ = pattern;
}

TestFolder::~TestFolder() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
}

namespace {

size_t set_size_limit(size_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const size_t before = limit.rlim_cur;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
    return before;
}

}  // namespace

FullDisk::FullDisk(size_t bytes) : before_(set_size_limit(bytes)) {
    std::signal(SIGXFSZ, SIG_IGN);
}

FullDisk::~FullDisk() {
    set_size_limit(before_);
}

size_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::string read_text(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void write_text(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

CliRig::CliRig(const PlatformConfig& settings) {
    model.start();
    for (uint32_t i = 1; i <= 4; ++i) {
        hardware.add("swp" + std::to_string(i), 100 + i);
    }
    platform.port_model = &model;
    platform.settings = settings;
    platform.settings.cli_socket = folder.file("run/cli.sock");
    platform.settings.startup_config = saved();
    master = qv_thread_master_create();
    if (cli_client_init("test", master) != 0) {
        throw std::runtime_error("the command line does not start");
    }
}

std::string CliRig::type(const std::string& line) {
    const cli::Result result = cli::execute(session, line);
    code = result.code;
    return result.output;
}

void CliRig::announce_ready() {
    cli_client_ready();
    platform.run_ready();
}

}  // namespace qv::test
