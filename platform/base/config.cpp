#include "platform/base/config.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <sys/un.h>
#include <toml++/toml.h>

#include "platform/base/loopback_address.h"

namespace qv {
namespace {

constexpr size_t kMaxBridgeName = 15;  // the kernel's limit for an interface name
constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;
constexpr size_t kMaxGroupName = 32;  // of the shadow tools
constexpr size_t kMaxRedisUser = 64;
constexpr size_t kMaxFilePath = 4095;  // the kernel's limit
constexpr int64_t kMaxPorts = 4096;
constexpr int64_t kMaxSessions = 1024;
constexpr int64_t kMinAddresses = 1024;
constexpr int64_t kMaxAddresses = 1048576;
constexpr int64_t kMaxIdleTimeout_s = 7 * 24 * 3600;
constexpr int64_t kShortestLease_ms = 1000;
constexpr int64_t kLongestLease_ms = 60000;
constexpr double kMaxSpeed = 10000.0;

[[noreturn]] void refuse_file(const std::string& path, int error) {
    throw std::runtime_error(path + ": cannot be read: " + std::generic_category().message(error));
}

[[noreturn]] void refuse(const std::string& path, unsigned line, const std::string& reason) {
    throw std::runtime_error(path + ":" + std::to_string(line) + ": " + reason);
}

std::string read_file(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text;
    // A directory opens, but its first byte cannot be read.
    if (!file || (file.peek(), file.bad())) {
        refuse_file(path, errno != 0 ? errno : EIO);
    }
    file.clear();
    text.assign(std::istreambuf_iterator<char>(file), {});
    if (file.bad()) {
        refuse_file(path, EIO);
    }
    return text;
}

toml::table parse(const std::string& path) {
    const std::string text = read_file(path);
    try {
        return toml::parse(text);
    } catch (const toml::parse_error& error) {
        refuse(path, error.source().begin.line, std::string(error.description()));
    }
}

// One table of the file. The constructor refuses keys that are not among `known`; the functions
// below read one key each into its variable and leave the variable alone when the key is absent.
class Section {
 public:
    Section(const std::string& path, const toml::table& table, std::string prefix,
            std::initializer_list<std::string_view> known)
        : path_(path), table_(table), prefix_(std::move(prefix)) {
        for (const auto& [key, value] : table_) {
            if (std::find(known.begin(), known.end(), key.str()) == known.end()) {
                refuse(path_, key.source().begin.line,
                       "unknown key '" + prefix_ + std::string(key.str()) + "'");
            }
        }
    }

    void text(std::string_view key, std::string& into,
              const std::function<std::string(const std::string&)>& fault = nullptr) const {
        const toml::node* node = table_.get(key);
        if (!node) {
            return;
        }
        if (!node->is_string()) {
            fail(key, "must be a text in quotes");
        }
        std::string value = node->value<std::string>().value_or("");
        if (value.find('\0') != std::string::npos) {
            fail(key, "must not contain a zero byte");
        }
        const std::string reason = fault ? fault(value) : "";
        if (!reason.empty()) {
            fail(key, reason);
        }
        into = std::move(value);
    }

    template <typename Enum>
    void choice(std::string_view key, Enum& into,
                std::initializer_list<std::pair<std::string_view, Enum>> choices) const {
        std::string word;
        text(key, word, [&](const std::string& value) {
            std::string names;
            for (const auto& [name, meaning] : choices) {
                if (value == name) {
                    into = meaning;
                    return std::string();
                }
                names += (names.empty() ? "\"" : " or \"") + std::string(name) + "\"";
            }
            return "must be " + names + ", not \"" + value + "\"";
        });
    }

    void whole_number(std::string_view key, unsigned& into, int64_t low, int64_t high) const {
        const toml::node* node = table_.get(key);
        if (!node) {
            return;
        }
        const std::optional<int64_t> value = node->value_exact<int64_t>();
        if (!value || *value < low || *value > high) {
            fail(key, "must be a whole number from " + std::to_string(low) + " to " +
                          std::to_string(high));
        }
        into = static_cast<unsigned>(*value);
    }

    // Above zero, up to `high`.
    void positive(std::string_view key, double& into, double high) const {
        const toml::node* node = table_.get(key);
        if (!node) {
            return;
        }
        const std::optional<double> value =
            node->is_number() ? node->value<double>() : std::nullopt;
        if (!value || !std::isfinite(*value) || *value <= 0 || *value > high) {
            fail(key,
                 "must be a number above 0 and up to " + std::to_string(static_cast<long>(high)));
        }
        into = *value;
    }

    void flag(std::string_view key, bool& into) const {
        const toml::node* node = table_.get(key);
        if (!node) {
            return;
        }
        if (!node->is_boolean()) {
            fail(key, "must be true or false");
        }
        into = node->value<bool>().value_or(false);
    }

    bool has(std::string_view key) const { return table_.contains(key); }

    [[noreturn]] void fail(std::string_view key, const std::string& reason) const {
        refuse(path_, table_.get(key)->source().begin.line,
               prefix_ + std::string(key) + " " + reason);
    }

    // A table within this one; an absent table reads as an empty one.
    Section section(std::string_view key, std::initializer_list<std::string_view> known) const {
        static const toml::table kEmpty;
        const toml::node* node = table_.get(key);
        if (node && !node->is_table()) {
            fail(key, "must be a table, written [" + std::string(key) + "]");
        }
        return Section(path_, node ? *node->as_table() : kEmpty, std::string(key) + ".", known);
    }

 private:
    const std::string& path_;
    const toml::table& table_;
    std::string prefix_;
};

std::string bridge_fault(const std::string& name) {
    const bool shaped = !name.empty() && name.size() <= kMaxBridgeName && name != "." &&
                        name != ".." && name.find_first_of("/: \t\r\n\v\f") == std::string::npos;
    return shaped ? "" : "must be an interface name of 1 to 15 characters";
}

std::string socket_fault(const std::string& socket) {
    return !socket.empty() && socket.size() <= kMaxSocketPath
               ? ""
               : "must be a path of 1 to " + std::to_string(kMaxSocketPath) + " bytes";
}

std::string redis_user_fault(const std::string& name) {
    const bool clean =
        std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isgraph(c) != 0; });
    return clean && !name.empty() && name.size() <= kMaxRedisUser
               ? ""
               : "must be a name of 1 to " + std::to_string(kMaxRedisUser) +
                     " characters, none of them blank";
}

std::string file_fault(const std::string& path) {
    return path.starts_with('/') && path.size() <= kMaxFilePath
               ? ""
               : "must be an absolute path of up to " + std::to_string(kMaxFilePath) + " bytes";
}

std::string group_fault(const std::string& name) {
    const bool shaped = !name.empty() && name.size() <= kMaxGroupName &&
                        name.find_first_of(": \t\r\n\v\f,") == std::string::npos;
    return shaped ? ""
                  : "must be the name of a group, 1 to " + std::to_string(kMaxGroupName) +
                        " characters";
}

std::string folder_fault(const std::string& path) {
    return path.starts_with('/') ? "" : "must be an absolute path";
}

std::string listen_fault(const std::string& address) {
    return parse_loopback_address(address)
               ? ""
               : "must be a loopback address and a port, such as \"127.0.0.1:9464\"";
}

void read_sections(const Section& top, PlatformConfig& config) {
    const Section linux_switch = top.section("linux", {"bridge", "max_addresses"});
    linux_switch.text("bridge", config.bridge, bridge_fault);
    linux_switch.whole_number("max_addresses", config.max_addresses, kMinAddresses, kMaxAddresses);
    const Section redis = top.section("redis", {"socket", "user", "password_file"});
    redis.text("socket", config.redis.socket, socket_fault);
    redis.text("user", config.redis.user, redis_user_fault);
    redis.text("password_file", config.redis.password_file, file_fault);
    if (redis.has("user") != redis.has("password_file")) {
        redis.fail(redis.has("user") ? "user" : "password_file",
                   redis.has("user") ? "needs redis.password_file" : "needs redis.user");
    }

    const Section cli = top.section("cli", {"socket", "max_sessions", "idle_timeout"});
    cli.text("socket", config.cli_socket, socket_fault);
    cli.whole_number("max_sessions", config.cli_max_sessions, 1, kMaxSessions);
    cli.whole_number("idle_timeout", config.cli_idle_timeout_s, 0, kMaxIdleTimeout_s);

    top.section("embedded", {"ports"}).whole_number("ports", config.embedded_ports, 1, kMaxPorts);

    const Section files = top.section("files", {"startup_config", "log_dir", "capabilities"});
    files.text("startup_config", config.startup_config);
    files.text("log_dir", config.log_dir);
    files.text("capabilities", config.capabilities);

    top.section("tarn", {"state"}).text("state", config.tarn_state, folder_fault);
    top.section("metrics", {"listen"}).text("listen", config.metrics_listen, listen_fault);
    const Section netconf = top.section("netconf", {"write_group", "runtime"});
    netconf.text("write_group", config.netconf_write_group, group_fault);
    netconf.text("runtime", config.netconf_runtime, folder_fault);

    top.section("log", {"structured"}).flag("structured", config.log_structured);

    const Section clock = top.section("clock", {"speed"});
    clock.positive("speed", config.speed, kMaxSpeed);
    if (clock.has("speed") && config.switch_kind == PlatformConfig::Switch::kLinux) {
        clock.fail("speed", "is for the embedded switch only");
    }

    const Section role = top.section("role", {"mode", "lease_ms"});
    role.choice<PlatformConfig::Role>(
        "mode", config.role,
        {{"solo", PlatformConfig::Role::kSolo}, {"lease", PlatformConfig::Role::kLease}});
    role.whole_number("lease_ms", config.lease_ms, kShortestLease_ms, kLongestLease_ms);
}

// Whether a setting may hold a password or a key. The platform file of this program has none, but
// somebody may have written one into it.
bool is_secret(std::string_view key, const toml::node& value) {
    std::string name(key);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* const word : {"password", "passwd", "secret", "token", "key", "credential"}) {
        if (name.find(word) != std::string::npos) {
            return true;
        }
    }
    const std::string text = value.value<std::string>().value_or("");
    const size_t scheme = text.find("://");
    return scheme != std::string::npos && text.find('@', scheme) != std::string::npos;
}

void leave_out_secrets(toml::table& table);

void leave_out_secrets(toml::array& array) {
    for (toml::node& node : array) {
        if (is_secret("", node)) {
            *node.as_string() = std::string("(left out)");
        } else if (toml::table* const table = node.as_table()) {
            leave_out_secrets(*table);
        } else if (toml::array* const inner = node.as_array()) {
            leave_out_secrets(*inner);
        }
    }
}

void leave_out_secrets(toml::table& table) {
    std::vector<std::string> secrets;
    for (auto&& [key, node] : table) {
        if (is_secret(key.str(), node)) {
            secrets.emplace_back(key.str());
        } else if (toml::table* const inner = node.as_table()) {
            leave_out_secrets(*inner);
        } else if (toml::array* const array = node.as_array()) {
            leave_out_secrets(*array);
        }
    }
    for (const std::string& key : secrets) {
        table.insert_or_assign(key, "(left out)");
    }
}

}  // namespace

std::string platform_file_without_secrets(const std::string& path) {
    toml::table table = parse(path);
    leave_out_secrets(table);
    std::ostringstream text;
    text << table << "\n";
    return text.str();
}

PlatformConfig load_platform_config(const std::string& path) {
    const toml::table table = parse(path);
    const Section top(path, table, "",
                      {"switch", "store", "linux", "redis", "cli", "embedded", "files", "log",
                       "clock", "role", "tarn", "metrics", "netconf"});
    PlatformConfig config;
    top.choice<PlatformConfig::Switch>("switch", config.switch_kind,
                                       {{"embedded", PlatformConfig::Switch::kEmbedded},
                                        {"linux", PlatformConfig::Switch::kLinux}});
    top.choice<PlatformConfig::Store>(
        "store", config.store,
        {{"memory", PlatformConfig::Store::kMemory}, {"redis", PlatformConfig::Store::kRedis}});
    read_sections(top, config);
    return config;
}

}  // namespace qv
