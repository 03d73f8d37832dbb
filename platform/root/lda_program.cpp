// Runs before the agent's own main, which takes no arguments and knows no platform: reads the
// command-line options, which the C library passes to constructors, and registers the platform.
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "platform/base/config.h"
#include "platform/base/folders.h"
#include "platform/base/visible.h"
#include "platform/root/platform.h"

namespace {

constexpr const char* kHelp =
    "usage: lda [--check FILE | --help | --version]\n"
    "\n"
    "The loop-detection agent of a managed Ethernet switch. It runs in the foreground and takes\n"
    "its commands from the shell `ldash`. What it runs on is described in the TOML file named in\n"
    "the environment variable LDA_PLATFORM; unset means the simulated switch with 24 ports and\n"
    "records in memory. --check reads such a file and says whether a start would take it: exit\n"
    "status 0, or 1 with file, line and reason. Keys, all optional, with their defaults:\n"
    "\n"
    "  switch = \"embedded\"           \"embedded\" (simulated) or \"linux\" (the ports of a "
    "bridge)\n"
    "  store = \"memory\"              \"memory\" or \"redis\"\n"
    "  [linux]    bridge = \"br0\"\n"
    "             max_addresses = 65536  learned ones that are followed, 1024 to 1048576\n"
    "  [redis]    socket = \"/run/redis/redis-server.sock\"\n"
    "             user               of the server; left out: no login\n"
    "             password_file      file with that user's password\n"
    "  [cli]      socket = \"/run/lda/cli.sock\"\n"
    "             max_sessions = 64     shells at the same time, 1 to 1024\n"
    "             idle_timeout = 1800   seconds until an idle shell is closed, up to 604800; "
    "0: never\n"
    "  [embedded] ports = 24         1 to 4096\n"
    "  [files]    startup_config     saved configuration; left out: nothing is saved\n"
    "             log_dir            folder of the log file; left out: no log file\n"
    "             capabilities       what this model can do; left out: nothing special\n"
    "  [log]      structured = false fields beside the texts of system log messages\n"
    "  [clock]    speed = 1.0        virtual seconds per second, simulated switch only\n"
    "  [role]     mode = \"solo\"      \"solo\" or \"lease\"\n"
    "             lease_ms = 3000    time of a lease in Redis, 1000 to 60000\n"
    "  [tarn]     state = \"/var/lib/lda/tarn\"   folder of the loop-probe service tarnd\n"
    "  [metrics]  listen             loopback address and port of the metrics; left out: none\n"
    "  [netconf]  write_group        group that may change things over NETCONF; left out: all "
    "users\n"
    "             runtime = \"/run/lda-netconf\"   folder that agent and NETCONF sessions share\n";

// If the process starts without them, the first file or socket it opened would take their numbers,
// and with them the output for the terminal.
void open_standard_descriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0) {
            // The lowest free number, which is this one.
            static_cast<void>(::open("/dev/null", O_RDWR));
        }
    }
}

// The exit status for a platform file: 1 with the reason when the start would end with it.
int check(const char* file) {
    try {
        qv::check_folders(qv::load_platform_config(file));
        return EXIT_SUCCESS;
    } catch (const std::exception& fault) {
        std::fprintf(stderr, "lda: %s\n", qv::visible(fault.what()).c_str());
        return EXIT_FAILURE;
    }
}

[[gnu::constructor]] void prepare(int argc, char** argv) {
    open_standard_descriptors();
    qv::set_platform_maker(qv::describe_platform);
    if (argc <= 1) {
        return;
    }
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(kHelp, stdout);
        std::exit(EXIT_SUCCESS);
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("lda " LDA_VERSION);
        std::exit(EXIT_SUCCESS);
    }
    if (argc == 3 && std::strcmp(argv[1], "--check") == 0) {
        std::exit(check(argv[2]));
    }
    std::fprintf(stderr, "lda: unknown argument '%s' (try --help)\n", qv::visible(argv[1]).c_str());
    std::exit(2);
}

}  // namespace
