// Keeps the owner of each shutdown and the sections of absent ports: the parts of the saved
// configuration that the running one lacks. Loop thread only.
//
// A shutdown belongs to the operator or to the program that typed it. A shutdown from outside,
// such as that of a device about to be removed, has no owner and is not saved. A program
// that holds a port shut says so with a line of its own in the port's section (kHeldLine). Between
// removing that line and typing "no shutdown" the port is down and unclaimed: saved as "shutdown"
// it would stay dark after a crash, so it is saved as "no shutdown", which the next start carries
// out. A section with the line belongs to the program, whatever else it says: the program shuts the
// port again and brings it up in its own time.
//
// Configuration belongs to the name of a port. When a port leaves, its section is kept, stays in
// every saved configuration, and is applied to the next port of that name.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "platform/cli/config_file.h"
#include "platform/client/port_model.h"

namespace qv::cli {

inline constexpr std::string_view kHeldLine = "loop-detect apply shutdown-port";

bool has_line(const ConfigSection& section, std::string_view line);

// The owner of a port's shutdown.
enum class ShutBy { kNobody, kOperator, kProgram };

class PortSections {
 public:
    // Names beyond this many are dropped, the longest absent first.
    static constexpr size_t kMaxKept = 4096;

    // ---- Ports that are present ----

    // The section of a port as it is to be saved now.
    ConfigSection saved(const Port& port) const;

    // Call when a port has appeared, before its section is applied. Until clear_pending() this
    // section is the one to save, because the port itself does not show it. Returns the section's
    // number.
    uint64_t set_pending(const ConfigSection& section);
    // Whether it is still pending: the port may have left, and may have appeared again with
    // another one.
    bool is_pending(const std::string& name, uint64_t number) const;
    void clear_pending(const std::string& name, uint64_t number);

    // The section as it will be after a change of the admin state. From this call on the new owner
    // has shut the port.
    ConfigSection change_admin(const Port& port, bool up, bool by_program);

    ShutBy shut_by(uint32_t ifx) const;
    void set_shut_by(uint32_t ifx, ShutBy owner);

    // ---- Ports that are absent ----

    // Call before a port is removed. `mode_before` is the VLAN mode it had in the bridge.
    void leave(const Port& port, uint32_t mode_before);
    // Keeps a section for an absent port, in place of an earlier one. `ifx` is the index of a port
    // that leaves; 0 keeps the index known for the name.
    void keep(ConfigSection section, uint32_t ifx = 0);
    // Records "no shutdown" for a port that has left, and sets the section that results. Returns
    // false for any other line and for an unknown port.
    bool accept_no_shutdown(uint32_t ifx, std::string_view line, ConfigSection& section);
    // Moves the section kept under a name to `section`. Returns false when there is none.
    bool take(const std::string& name, ConfigSection& section);
    bool kept(const std::string& name) const { return kept_.contains(name); }
    // All of them, as text.
    std::string kept_text() const;

 private:
    struct Pending {
        ConfigSection section;
        uint64_t number = 0;
    };

    struct Kept {
        ConfigSection section;
        uint32_t ifx = 0;  // of the last port of this name that left; 0: unknown, or reused since
        uint64_t age = 0;
    };

    std::map<uint32_t, ShutBy> shut_by_;  // only ports that somebody has shut
    std::map<std::string, Pending> pending_;
    uint64_t pending_numbers_ = 0;
    std::map<std::string, Kept> kept_;
    uint64_t ages_ = 0;
};

}  // namespace qv::cli
