// The platform file: the TOML file named in the environment variable LDA_PLATFORM. The defaults
// below are the only place in the code that has them; packaging/lda.toml and `lda --help` show
// them.
#pragma once

#include <string>

#include "platform/base/redis_server.h"

namespace qv {

struct PlatformConfig {
    enum class Switch { kEmbedded, kLinux };
    enum class Store { kMemory, kRedis };
    enum class Role { kSolo, kLease };

    Switch switch_kind = Switch::kEmbedded;
    Store store = Store::kMemory;
    std::string bridge = "br0";      // [linux] bridge
    unsigned max_addresses = 65536;  // [linux] max_addresses
    // [redis] socket, user, password_file; no user: no login
    RedisServer redis{.socket = "/run/redis/redis-server.sock"};
    std::string cli_socket = "/run/lda/cli.sock";  // [cli] socket
    unsigned cli_max_sessions = 64;                // [cli] max_sessions
    unsigned cli_idle_timeout_s = 1800;            // [cli] idle_timeout; 0: never
    std::string startup_config;       // [files] startup_config; empty: nothing is saved
    std::string log_dir;              // [files] log_dir; empty: no log file
    std::string capabilities;         // [files] capabilities; empty: none
    unsigned embedded_ports = 24;     // [embedded] ports
    double speed = 1.0;               // [clock] speed, embedded switch only
    Role role = Role::kSolo;          // [role] mode
    unsigned lease_ms = 3000;         // [role] lease_ms, for a lease in Redis
    bool log_structured = false;      // [log] structured
    std::string netconf_write_group;  // [netconf] write_group; empty: every user may change
    std::string netconf_runtime = "/run/lda-netconf";  // [netconf] runtime: the sessions' folder
    std::string tarn_state =
        "/var/lib/lda/tarn";     // [tarn] state: folder of tarnd's key and journal
    std::string metrics_listen;  // [metrics] listen; empty: no metrics
};

// Reads the file. Throws std::runtime_error with "FILE:LINE: reason", or with "FILE: reason" when
// the file cannot be read at all.
PlatformConfig load_platform_config(const std::string& path);

// The settings in the file as text that may be shown to others, without comments: what could be a
// secret (by the name of its key, or a user in an address) is replaced by "(left out)". Throws as
// load_platform_config() does.
std::string platform_file_without_secrets(const std::string& path);

}  // namespace qv
