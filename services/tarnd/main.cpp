// The program `tarnd`: finds loops of one bridge by probes.
#include <sodium.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "platform/base/folders.h"
#include "platform/base/message_log.h"
#include "platform/base/supervisor.h"
#include "platform/base/tarn_names.h"
#include "platform/base/visible.h"
#include "platform/client/name_lock.h"
#include "platform/client/thread_master.h"
#include "platform/driver/linux/syslog_log.h"
#include "platform/driver/linux/termination.h"
#include "qv/rdnd.h"
#include "services/tarnd/control.h"
#include "services/tarnd/identity.h"
#include "services/tarnd/platform.h"
#include "services/tarnd/service.h"
#include "services/tarnd/status_records.h"

namespace {

using namespace qv;
using namespace qv::tarnd;

constexpr const char* kUsage =
    "usage: tarnd [--help | --version]\n"
    "\n"
    "Sends loop probes on the ports of a Linux bridge, reports loops in the object database and\n"
    "cuts them where the loop-detect policy says so. It runs in the foreground. The bridge\n"
    "([linux] bridge), the object database ([redis] socket) and its own folder ([tarn] state) are\n"
    "those of the platform file that LDA_PLATFORM names, the same file as the agent's.\n";

PlatformConfig read_config() {
    const char* const path = std::getenv("LDA_PLATFORM");
    if (path == nullptr || *path == '\0') {
        throw std::runtime_error("LDA_PLATFORM must name the platform file");
    }
    PlatformConfig config = load_platform_config(path);
    check_folders(config);
    if (config.switch_kind != PlatformConfig::Switch::kLinux ||
        config.store != PlatformConfig::Store::kRedis) {
        throw std::runtime_error(std::string(path) +
                                 ": needs switch = \"linux\" and store = \"redis\"");
    }
    return config;
}

void lock_bridge(EventLoop& loop, NameLock& lock, const PlatformConfig& config) {
    const std::string name = tarn_lock_name(config);
    const std::string file = tarn_lock_file(config);
    const int error = lock.take(loop, name, file);
    if (error == EADDRINUSE) {
        throw std::runtime_error("another tarnd (process " +
                                 std::to_string(NameLock::holder(name, file)) + ") probes bridge " +
                                 config.bridge);
    }
    if (error != 0) {
        throw std::runtime_error(file + ": " + std::strerror(error));
    }
}

void run() {
    if (sodium_init() < 0) {
        throw std::runtime_error("libsodium does not start");
    }
    std::signal(SIGPIPE, SIG_IGN);
    const PlatformConfig config = read_config();
    ServicePlatform platform(config);
    install_platform(platform);
    qv_thread_master* const master = qv_thread_master_create();
    EventLoop& loop = loop_of(master);

    const Prober::Identity identity = load_identity(config.tarn_state, config.bridge);
    NameLock lock;
    lock_bridge(loop, lock, config);
    CutJournal journal(config.tarn_state + "/cuts", boot_name());
    CutJournal guards(config.tarn_state + "/guards", boot_name());
    ProbeThread prober(identity, config.bridge, journal, guards);
    GuardTable guard(identity.source);
    if (const std::string reason = guard.install(); !reason.empty()) {
        throw std::runtime_error("no rule against returned probes: " + reason);
    }
    Service* service = nullptr;
    // Before there are other threads: they inherit that its signals are blocked.
    const Termination termination(loop, [&] { service->close(); });
    StatusBoard board;
    Service made(loop, prober, journal, guards, guard, board, identity.key);
    service = &made;
    const auto counters = [&] {
        return board.counters(prober);
    };
    const StatusRecords records(loop, board, counters);
    const Control control(loop, tarn_control_socket(config), board,
                          {.counters = counters, .ask = [&](uint32_t ifx) {
                               return prober.command({.kind = Command::Kind::kAsk, .ifx = ifx});
                           }});
    app_public_init_dead_detection(master);
    report_ready("probing the ports of bridge " + config.bridge);
    log_message(kLogInfo, "TARN", "START", "Probing the ports of bridge %s.",
                config.bridge.c_str());
    while (loop.fetch()) {
        loop.run();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(kUsage, stdout);
        return EXIT_SUCCESS;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("tarnd " LDA_VERSION);
        return EXIT_SUCCESS;
    }
    if (argc > 1) {
        std::fprintf(stderr, "tarnd: unknown argument '%s' (try --help)\n",
                     visible(argv[1]).c_str());
        return 2;
    }
    try {
        run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarnd: %s\n", visible(error.what()).c_str());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
