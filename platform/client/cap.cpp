// qv/cap.h: the capability file is TOML with one quoted key per capability, for example
//     "p_cmps_sln/lda/storm_dct_ratelimit/default_value" = 8000
// It is read once, by the first client; no file, or none named, is an empty store.
#include "qv/cap.h"

#include <cerrno>
#include <filesystem>
#include <limits>
#include <new>
#include <optional>
#include <set>
#include <string>

#include <toml++/toml.h>

#include "platform/base/guarded.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace {

struct Store {
    std::optional<toml::table> entries;  // empty until a file was read without error
    std::set<std::string> clients;
};

Store& store() {
    static Store instance;
    return instance;
}

// `place` is the path, or the path and a line.
void log_bad_file(const std::string& place, const char* reason) {
    printk_syslog(SYSLOG_SEVERITY_ERROR, "CAP", "FILE", "Capability file %s: %s", place.c_str(),
                  reason);
}

// 0, or EINVAL after one log line.
int load(const std::string& path) {
    std::error_code unknown;  // a file that cannot be examined counts as bad
    if (path.empty() || (!std::filesystem::exists(path, unknown) && !unknown)) {
        store().entries.emplace();
        return 0;
    }
    // The parser reads a directory as an empty file.
    if (std::filesystem::is_directory(path, unknown)) {
        log_bad_file(path, "is a directory");
        return EINVAL;
    }
    try {
        store().entries = toml::parse_file(path);
        return 0;
    } catch (const toml::parse_error& error) {
        log_bad_file(path + ":" + std::to_string(error.source().begin.line),
                     std::string(error.description()).c_str());
    } catch (const std::bad_alloc&) {
        throw;  // not the file's fault
    } catch (const std::exception& error) {
        log_bad_file(path, error.what());
    }
    return EINVAL;
}

int read_number(const char* client, const char* key, int32_t& value, int32_t fallback) {
    if (!store().clients.contains(client)) {
        return ENOENT;
    }
    const toml::node* entry = store().entries->get(key);
    if (entry == nullptr) {
        value = fallback;
        return 0;
    }
    const toml::value<int64_t>* number = entry->as_integer();
    if (number == nullptr) {
        return EINVAL;
    }
    using Limits = std::numeric_limits<int32_t>;
    if (number->get() < Limits::min() || number->get() > Limits::max()) {
        return ERANGE;
    }
    value = static_cast<int32_t>(number->get());
    return 0;
}

}  // namespace

int libqv_cap_init(const char* client, const char* key) {
    if (client == nullptr || key == nullptr || *client == '\0' || *key == '\0') {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [client] {
        if (!store().entries) {
            if (const int error = load(qv::platform().config().capabilities); error != 0) {
                return error;
            }
        }
        store().clients.insert(client);
        return 0;
    });
}

int libqv_cap_get_capacity_int32(const char* client, const char* key, int32_t* value,
                                 int32_t fallback) {
    if (client == nullptr || key == nullptr || value == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] { return read_number(client, key, *value, fallback); });
}
