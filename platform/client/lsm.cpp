// LSM client: turns changes of the port model into the messages of the selected classes. Every
// handler call is its own piece of work of the loop, so a handler never runs inside a change.
#include "qv/lsm.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "platform/base/guarded.h"
#include "platform/client/platform.h"
#include "platform/client/thread_master.h"

namespace {

using qv::Port;
using Message = std::vector<uint32_t>;

struct Selection {
    uint8_t types[LSM_TYPE_BITMAP_BYTES];
    uint32_t events;

    bool covers(uint32_t type, uint32_t event) const {
        return type < LSM_TYPE_BITMAP_BYTES * 8 && (types[type / 8] >> (type % 8) & 1) != 0 &&
               event < 32 && (events >> event & 1) != 0;
    }
};

struct EventClass {
    std::vector<Selection> selections;  // an event passes when one of them covers it
    lsm_event_handler handler = nullptr;
};

class LsmClient final : public qv::PortObserver {
 public:
    LsmClient() { qv::platform().ports().add_observer(*this); }

    int mode = 0;

    void select(int event_class, const uint8_t* types, uint32_t events) {
        Selection selection{};
        std::memcpy(selection.types, types, sizeof selection.types);
        selection.events = events;
        classes_[event_class].selections.push_back(selection);
    }

    void set_handler(int event_class, lsm_event_handler handler) {
        classes_[event_class].handler = handler;
    }

    // Starts the events. Ports that exist are announced as added; those that the driver has not
    // reported yet follow when it does.
    void registered() {
        registered_ = true;
        if (mode != kAnnounce) {
            return;
        }
        const qv::PortModel& model = qv::platform().ports();
        for (const auto& [ifx, port] : model.ports()) {
            on_added(port);
        }
        if (model.complete()) {
            on_complete();
        }
    }

    const lsm_intfcb* control_block(const Port& port) {
        lsm_intfcb& block = blocks_[port.ifx];
        block = {port.ifx, port.switchport ? LSM_INTFCB_FLAG_SWITCHPORT : 0};
        return &block;
    }

    void on_added(const Port& port) override {
        const bool at_start = !qv::platform().ports().complete();
        if (!at_start || mode == kAnnounce) {
            post_if_selected(LSM_CLASS_PORT, LSM_EVENT_ADD, port.type, {port.ifx});
        }
    }

    void on_removed(const Port& port) override {
        blocks_.erase(port.ifx);
        post_if_selected(LSM_CLASS_PORT, LSM_EVENT_DELETE, port.type, {port.ifx});
    }

    // For clients the name of a port never changes.
    void on_renamed(const Port& port) override {
        post_if_selected(LSM_CLASS_PORT, LSM_EVENT_DELETE, port.type, {port.ifx});
        post_if_selected(LSM_CLASS_PORT, LSM_EVENT_ADD, port.type, {port.ifx});
    }

    void on_default(const Port& port) override {
        post_if_selected(LSM_CLASS_PORT, LSM_EVENT_DEFAULT, port.type, {port.ifx});
    }

    void on_left_bridge(const Port& port) override {
        post_if_selected(LSM_CLASS_BRIDGE, LSM_EVENT_BRIDGE_LEAVE, port.type, {port.ifx});
    }

    void on_changed(const Port& before, const Port& after) override {
        if (blocks_.contains(after.ifx)) {
            control_block(after);
        }
        if (before.aggregate != after.aggregate) {
            post_membership(kLeft, before.aggregate, after);
            post_membership(kJoined, after.aggregate, after);
        }
        if (before.vsl != after.vsl) {
            Message message(LSM_LAYER_MESSAGE_WORDS);
            message[0] = after.ifx;
            message[56] = after.vsl ? LSM_LAYER_FLAG_VSL : 0;
            post_if_selected(LSM_CLASS_LAYER,
                             after.vsl ? LSM_EVENT_VSL_CREATE : LSM_EVENT_VSL_REMOVE, after.type,
                             std::move(message));
        }
    }

    void on_complete() override {
        if (!registered_ || mode != kAnnounce) {
            return;
        }
        std::set<lsm_event_handler> notified;
        for (const auto& [event_class, settings] : classes_) {
            if (notified.insert(settings.handler).second) {
                post(event_class, LSM_EVENT_PORT_READY, {});
            }
        }
    }

 private:
    static constexpr int kAnnounce = 2;
    static constexpr uint32_t kJoined = 0;
    static constexpr uint32_t kLeft = 1;

    void post_membership(uint32_t change, uint32_t aggregate, const Port& member) {
        if (aggregate == 0) {
            return;
        }
        Message message(LSM_AGGREGATE_MESSAGE_WORDS);
        message[0] = change;
        message[1] = aggregate;
        message[34] = member.ifx;
        post_if_selected(LSM_CLASS_AGGREGATE, LSM_EVENT_AGGREGATE_MEMBER, member.type,
                         std::move(message));
    }

    void post_if_selected(int event_class, uint32_t event, uint32_t type, Message message) {
        const auto found = classes_.find(event_class);
        if (!registered_ || found == classes_.end()) {
            return;
        }
        for (const Selection& selection : found->second.selections) {
            if (selection.covers(type, event)) {
                post(event_class, event, std::move(message));
                return;
            }
        }
    }

    // The handler gets null for an empty message.
    void post(int event_class, uint32_t event, Message message) {
        qv::platform().loop().post(
            [this, event_class, event, words = std::move(message)]() mutable {
                if (const lsm_event_handler handler = classes_[event_class].handler) {
                    handler(event, words.empty() ? nullptr : words.data());
                }
            });
    }

    bool registered_ = false;
    std::map<int, EventClass> classes_;
    std::map<uint32_t, lsm_intfcb> blocks_;  // control blocks that clients have asked for
};

LsmClient& lsm_client() {
    static LsmClient instance;
    return instance;
}

void (*g_lsm_connected)(void) = nullptr;

const Port* find(uint32_t ifx) {
    return qv::platform().ports().find(ifx);
}

}  // namespace

int lsm_agent_init(const char* name, qv_thread_master* master) {
    if (!name || !master) {
        return -1;
    }
    return qv::guarded(-1, [master] {
        lsm_client();  // starts to follow the ports
        qv::loop_of(master).post([] {
            if (g_lsm_connected) {
                g_lsm_connected();
            }
        });
        return 0;
    });
}

void lsm_agent_set_connect_callback(void (*callback)(void)) {
    g_lsm_connected = callback;
}

int lsm_client_set_mode(int mode) {
    return qv::guarded(-1, [mode] {
        lsm_client().mode = mode;
        return 0;
    });
}

int lsm_client_reg_event_ex(int event_class, const uint8_t* type_bitmap, uint32_t event_mask) {
    if (!type_bitmap) {
        return -1;
    }
    return qv::guarded(-1, [&] {
        lsm_client().select(event_class, type_bitmap, event_mask);
        return 0;
    });
}

int lsm_reg_msg_handler_ex(int event_class, lsm_event_handler handler) {
    return qv::guarded(-1, [&] {
        lsm_client().set_handler(event_class, handler);
        return 0;
    });
}

int lsm_client_reg_event_over(void) {
    return qv::guarded(-1, [] {
        lsm_client().registered();
        return 0;
    });
}

int lsm_if_get_sname(uint32_t ifx, char* name, size_t size) {
    const Port* port = find(ifx);
    if (size > 0) {
        std::snprintf(name, size, "%s", port ? port->name.c_str() : "");
    }
    return port ? 0 : -1;
}

const lsm_intfcb* lsm_get_intfcb(uint32_t ifx) {
    return qv::guarded<const lsm_intfcb*>(nullptr, [ifx] {
        const Port* port = find(ifx);
        return port ? lsm_client().control_block(*port) : nullptr;
    });
}

uint32_t lsm_if_get_type(uint32_t ifx) {
    const Port* port = find(ifx);
    return port ? port->type : 0;
}

uint32_t lsm_if_get_flags(uint32_t ifx) {
    const Port* port = find(ifx);
    return port ? port->flags : LSM_IF_FLAG_HIDDEN;
}

int lsm_walk_through_ex(int (*handler)(uint32_t ifx, void* arg), void* arg) {
    const std::map<uint32_t, Port>& ports = qv::platform().ports().ports();
    // The handler may add and remove ports, so the walk remembers an index, not an iterator.
    for (auto next = ports.begin(); next != ports.end();) {
        const uint32_t ifx = next->first;
        if (const int result = handler(ifx, arg)) {
            return result;
        }
        next = ports.upper_bound(ifx);
    }
    return 0;
}
