#include "services/netconf/options.h"

#include <getopt.h>

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "platform/base/config.h"

namespace netconf {

std::string usage() {
    return "usage: lda-netconf [--platform FILE] [--redis SOCKET] [--yang DIR] [--runtime DIR]\n"
           "                   [--stderr] [--help]\n"
           "\n"
           "Speaks NETCONF on standard input and output: one process, one session. Meant to be\n"
           "started by sshd as its subsystem \"netconf\".\n"
           "\n"
           "  --platform FILE   platform file of the switch, for its [redis] socket and\n"
           "                    [netconf] section\n"
           "                    (default: the environment variable LDA_PLATFORM)\n"
           "  --redis SOCKET    Unix socket of the object database\n"
           "  --yang DIR        folder of the YANG modules (default: " LDA_YANG_DIR
           ")\n"
           "  --runtime DIR     folder that sessions and agent share, else [netconf] runtime\n"
           "  --stderr          log to standard error as well as to the system log\n";
}

Options read_options(int count, char* const* words) {
    static const std::array<option, 7> known{{
        {"platform", required_argument, nullptr, 'p'},
        {"redis", required_argument, nullptr, 'r'},
        {"yang", required_argument, nullptr, 'y'},
        {"runtime", required_argument, nullptr, 'd'},
        {"stderr", no_argument, nullptr, 'e'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    }};
    Options options;
    options.yang_dir = LDA_YANG_DIR;
    const char* const named = getenv("LDA_PLATFORM");
    std::string platform = named == nullptr ? "" : named;
    opterr = 0;
    for (int found; (found = getopt_long(count, words, "", known.data(), nullptr)) != -1;) {
        switch (found) {
            case 'p':
                platform = optarg;
                break;
            case 'r':
                options.redis.socket = optarg;
                break;
            case 'y':
                options.yang_dir = optarg;
                break;
            case 'd':
                options.runtime_dir = optarg;
                break;
            case 'e':
                options.log_to_stderr = true;
                break;
            case 'h':
                options.help = true;
                break;
            default:
                throw std::runtime_error(std::string("bad argument: ") + words[optind - 1]);
        }
    }
    if (optind < count) {
        throw std::runtime_error(std::string("bad argument: ") + words[optind]);
    }
    if (options.help) {
        return options;
    }
    const qv::PlatformConfig config =
        platform.empty() ? qv::PlatformConfig() : qv::load_platform_config(platform);
    options.write_group = config.netconf_write_group;
    const std::string socket = std::exchange(options.redis, config.redis).socket;
    if (!socket.empty()) {
        options.redis.socket = socket;
    }
    if (options.runtime_dir.empty()) {
        options.runtime_dir = config.netconf_runtime;
    }
    return options;
}

}  // namespace netconf
