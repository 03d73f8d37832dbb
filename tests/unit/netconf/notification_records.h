// Records of the object database that services of the switch publish and keep for NETCONF sessions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/netconf/database_peer.h"

namespace netconf::test {

struct Leaf {
    std::string path;
    int type;
    uint32_t value;
};

inline const std::string kNotificationModule = "qv-loop-detect-server-notification";
inline const std::string kNotificationName = kNotificationModule + ":loop-detect-state";

// When the event was and which number it has; 0: the record has no number.
struct Stamp {
    uint64_t time_ms = 1767323045678;  // 2026-01-02T03:04:05.678Z
    uint64_t sequence = 0;
};

// Path of a leaf of the entry of a port.
std::string path_of(const std::string& port, const std::string& leaf);

// A packed p_nc.notification.
std::string packed(std::string name, std::vector<Leaf> leaves, const Stamp& stamp = {});
// A loop on this port; kind 2: its end.
std::string loop_on(const std::string& port, uint32_t kind = 1, const Stamp& stamp = {});

// Stores a notification as one of those that are kept, in its slot.
void keep(DatabasePeer& database, const std::string& port, const Stamp& stamp);
// Stores the record about the log; aged_ms 0: nothing has left it.
void keep_log(DatabasePeer& database, uint64_t created_ms, uint64_t aged_ms = 0);

}  // namespace netconf::test
