// Bridge client: turns mode changes of the port model into events, each delivered from the loop.
#include "qv/bridge.h"

#include <cerrno>

#include "platform/base/guarded.h"
#include "platform/client/platform.h"
#include "platform/client/thread_master.h"

namespace {

using qv::Port;

class BridgeClient final : public qv::PortObserver {
 public:
    BridgeClient() { qv::platform().ports().add_observer(*this); }

    bridge_event_set selection{};
    bridge_event_handler handler = nullptr;

    void on_added(const Port&) override {}
    void on_removed(const Port&) override {}
    void on_default(const Port&) override {}
    void on_left_bridge(const Port&) override {}  // an event of the LSM
    void on_complete() override {}

    void on_changed(const Port& before, const Port& after) override {
        // Members follow their aggregate port, and only the change of that port is an event.
        if (before.mode == after.mode || after.aggregate != 0 || !selected()) {
            return;
        }
        const bridge_mode_change change{after.ifx, after.mode};
        qv::platform().loop().post([this, change] {
            if (selected()) {
                handler(BRIDGE_EVENT_MODE_CHANGE, &change);
            }
        });
    }

 private:
    bool selected() const {
        constexpr uint32_t kEvent = BRIDGE_EVENT_MODE_CHANGE;
        return handler && (selection.word[kEvent / 64] >> (kEvent % 64) & 1) != 0;
    }
};

BridgeClient& bridge_client() {
    static BridgeClient instance;
    return instance;
}

void (*g_bridge_connected)(void) = nullptr;

}  // namespace

int bridge_agent_init(const char* name, qv_thread_master* master) {
    if (!name || !master) {
        return -1;
    }
    return qv::guarded(-1, [master] {
        bridge_client();  // starts to follow the ports
        qv::loop_of(master).post([] {
            if (g_bridge_connected) {
                g_bridge_connected();
            }
        });
        return 0;
    });
}

void bridge_agent_set_connect_callback(void (*callback)(void)) {
    g_bridge_connected = callback;
}

int bridge_client_reg_event(const bridge_event_set* events, bridge_event_handler handler) {
    if (!events || !handler) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        bridge_client().selection = *events;
        bridge_client().handler = handler;
        return 0;
    });
}

int swport_get_port_mode(uint32_t ifx, uint32_t* mode) {
    const Port* port = qv::platform().ports().find(ifx);
    *mode = port ? port->mode : SWPORT_MODE_NONE;
    return port ? 0 : -1;
}

int vl_clnt_get_portmode_by_index(uint32_t ifx, uint32_t* mode) {
    return swport_get_port_mode(ifx, mode);
}

const char* swport_vlan_mode_name(uint32_t mode) {
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
