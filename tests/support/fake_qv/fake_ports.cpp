// LSM, bridge agent, VLAN client and device mapping over one port table.
#include <cstring>
#include <map>

#include "qv/ddm.h"
#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

namespace fake {
namespace {

struct Entry {
    Port port;
    lsm_intfcb control;
    bool mapped = true;
};

struct State {
    std::map<uint32_t, Entry> ports;
    std::map<int, lsm_event_handler> lsm_handlers;
    void (*lsm_connected)(void) = nullptr;
    void (*bridge_connected)(void) = nullptr;
    bridge_event_set selection{};
    bridge_event_handler bridge = nullptr;
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

Entry* find(uint32_t ifx) {
    auto found = state().ports.find(ifx);
    return found == state().ports.end() ? nullptr : &found->second;
}

std::string numbered(const char* name, uint32_t number) {
    return name + std::string(" ") + std::to_string(number);
}

std::string hex(const uint8_t* bytes, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; i++) {
        char two[3];
        snprintf(two, sizeof two, "%02x", bytes[i]);
        text += two;
    }
    return text;
}

int read_mode(const char* call, uint32_t ifx, uint32_t* mode) {
    const Entry* entry = find(ifx);
    long result = enter(call, numbered(call, ifx), entry == nullptr ? -1 : 0);
    *mode = result == 0 && entry != nullptr ? entry->port.mode : 0;
    return static_cast<int>(result);
}

std::string with_master(const char* call, const char* name, const qv_thread_master* given) {
    return call + std::string(" ") + quoted_or_null(name) +
           (given == master() ? "" : " wrong master");
}

}  // namespace

void add_port(const Port& port) {
    state().ports[port.ifx] = {port, {port.ifx, port.intfcb_flags}, true};
}

void add_port(uint32_t ifx, uint32_t mode) {
    add_port(
        Port{.ifx = ifx, .name = "swp" + std::to_string(ifx), .mode = mode, .phyid = ifx + 100});
}

void remove_port(uint32_t ifx) {
    state().ports.erase(ifx);
}

void unmap_port(uint32_t ifx) {
    if (Entry* entry = find(ifx))
        entry->mapped = false;
}

void lsm_connect() {
    state().lsm_connected();
}

lsm_event_handler lsm_handler(int event_class) {
    return state().lsm_handlers[event_class];
}

bool lsm_event(int event_class, uint32_t event, const void* message) {
    lsm_event_handler handler = lsm_handler(event_class);
    if (handler == nullptr)
        return false;
    handler(event, const_cast<void*>(message));
    return true;
}

void bridge_connect() {
    state().bridge_connected();
}

bool bridge_event(uint32_t event, const void* payload) {
    if (state().bridge == nullptr)
        return false;
    state().bridge(event, payload);
    return true;
}

bridge_event_set bridge_selection() {
    return state().selection;
}
bridge_event_handler bridge_handler() {
    return state().bridge;
}

}  // namespace fake

using fake::state;

extern "C" {

int lsm_agent_init(const char* name, qv_thread_master* master) {
    return static_cast<int>(
        fake::enter("lsm_agent_init", fake::with_master("lsm_agent_init", name, master)));
}

void lsm_agent_set_connect_callback(void (*callback)(void)) {
    fake::enter("lsm_agent_set_connect_callback", "lsm_agent_set_connect_callback");
    state().lsm_connected = callback;
}

int lsm_client_set_mode(int mode) {
    return static_cast<int>(
        fake::enter("lsm_client_set_mode", "lsm_client_set_mode " + std::to_string(mode)));
}

int lsm_client_reg_event_ex(int event_class, const uint8_t* type_bitmap, uint32_t event_mask) {
    std::string line = "lsm_client_reg_event_ex class=" + std::to_string(event_class) +
                       " types=" + fake::hex(type_bitmap, LSM_TYPE_BITMAP_BYTES) +
                       " events=" + std::to_string(event_mask);
    return static_cast<int>(fake::enter("lsm_client_reg_event_ex", line));
}

int lsm_reg_msg_handler_ex(int event_class, lsm_event_handler handler) {
    long result = fake::enter("lsm_reg_msg_handler_ex",
                              "lsm_reg_msg_handler_ex class=" + std::to_string(event_class));
    state().lsm_handlers[event_class] = handler;
    return static_cast<int>(result);
}

int lsm_client_reg_event_over(void) {
    return static_cast<int>(fake::enter("lsm_client_reg_event_over", "lsm_client_reg_event_over"));
}

int lsm_if_get_sname(uint32_t ifx, char* name, size_t size) {
    const fake::Entry* entry = fake::find(ifx);
    long result = fake::enter("lsm_if_get_sname",
                              fake::numbered("lsm_if_get_sname", ifx) + " " + std::to_string(size),
                              entry == nullptr ? -1 : 0);
    const char* text = result == 0 && entry != nullptr ? entry->port.name.c_str() : "";
    snprintf(name, size, "%s", text);
    return static_cast<int>(result);
}

const lsm_intfcb* lsm_get_intfcb(uint32_t ifx) {
    const fake::Entry* entry = fake::find(ifx);
    bool refused = fake::enter_refused("lsm_get_intfcb", fake::numbered("lsm_get_intfcb", ifx));
    return refused || entry == nullptr ? nullptr : &entry->control;
}

uint32_t lsm_if_get_type(uint32_t ifx) {
    const fake::Entry* entry = fake::find(ifx);
    fake::enter("lsm_if_get_type", fake::numbered("lsm_if_get_type", ifx));
    return entry == nullptr ? 0 : entry->port.type;
}

uint32_t lsm_if_get_flags(uint32_t ifx) {
    const fake::Entry* entry = fake::find(ifx);
    fake::enter("lsm_if_get_flags", fake::numbered("lsm_if_get_flags", ifx));
    return entry == nullptr ? LSM_IF_FLAG_HIDDEN : entry->port.flags;
}

int lsm_walk_through_ex(int (*handler)(uint32_t ifx, void* arg), void* arg) {
    if (long result = fake::enter("lsm_walk_through_ex", "lsm_walk_through_ex"))
        return static_cast<int>(result);
    std::map<uint32_t, fake::Entry> ports = state().ports;
    for (const auto& [ifx, entry] : ports)
        if (int result = handler(ifx, arg))
            return result;
    return 0;
}

int bridge_agent_init(const char* name, qv_thread_master* master) {
    return static_cast<int>(
        fake::enter("bridge_agent_init", fake::with_master("bridge_agent_init", name, master)));
}

void bridge_agent_set_connect_callback(void (*callback)(void)) {
    fake::enter("bridge_agent_set_connect_callback", "bridge_agent_set_connect_callback");
    state().bridge_connected = callback;
}

int bridge_client_reg_event(const bridge_event_set* events, bridge_event_handler handler) {
    std::string line = "bridge_client_reg_event";
    for (size_t bit = 0; bit < BRIDGE_EVENT_WORDS * 64; bit++)
        if (events->word[bit / 64] >> (bit % 64) & 1)
            line += " " + std::to_string(bit);
    long result = fake::enter("bridge_client_reg_event", line);
    if (result == 0) {
        state().selection = *events;
        state().bridge = handler;
    }
    return static_cast<int>(result);
}

int vl_clnt_get_portmode_by_index(uint32_t ifx, uint32_t* mode) {
    return fake::read_mode("vl_clnt_get_portmode_by_index", ifx, mode);
}

int swport_get_port_mode(uint32_t ifx, uint32_t* mode) {
    return fake::read_mode("swport_get_port_mode", ifx, mode);
}

const char* swport_vlan_mode_name(uint32_t mode) {
    fake::enter("swport_vlan_mode_name", fake::numbered("swport_vlan_mode_name", mode));
    switch (mode) {
        case SWPORT_MODE_ACCESS:
            return "access";
        case SWPORT_MODE_TRUNK:
            return "trunk";
        case SWPORT_MODE_HYBRID:
            return "hybrid";
        default:
            return "none";
    }
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t* phyid) {
    const fake::Entry* entry = fake::find(ifx);
    bool known = entry != nullptr && entry->mapped;
    long result = fake::enter("libddm_get_phyid_by_ifx",
                              fake::numbered("libddm_get_phyid_by_ifx", ifx), known ? 0 : -1);
    if (result == 0 && known)
        *phyid = entry->port.phyid;
    return static_cast<int>(result);
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t* ifx) {
    const fake::Entry* found = nullptr;
    for (const auto& [index, entry] : state().ports)
        if (entry.mapped && entry.port.phyid == phyid)
            found = &entry;
    long result =
        fake::enter("libddm_get_ifx_by_phyid", fake::numbered("libddm_get_ifx_by_phyid", phyid),
                    found != nullptr ? 0 : -1);
    if (result == 0 && found != nullptr)
        *ifx = found->port.ifx;
    return static_cast<int>(result);
}

}  // extern "C"
