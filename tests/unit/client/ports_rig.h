// The port clients on a scripted switch, with a stopped clock.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/client/port_model.h"
#include "platform/client/thread_master.h"
#include "tests/support/test_platform.h"

// Reports nothing by itself: the test calls the sink.
class ScriptedSwitch final : public qv::SwitchDriver {
 public:
    void start(qv::PortSink& sink) override { (void)sink; }
    std::string set_admin(uint32_t ifx, bool up) override {
        requests.push_back("admin " + std::to_string(ifx) + (up ? " up" : " down"));
        return answer;
    }
    std::string set_mode(uint32_t ifx, uint32_t mode) override {
        requests.push_back("mode " + std::to_string(ifx) + " " + std::to_string(mode));
        return answer;
    }
    std::map<uint32_t, qv::PortCounters> counters(uint32_t) override { return {}; }

    std::vector<std::string> requests;
    std::string answer;
};

struct PortsRig {
    PortsRig() {
        platform.port_model = &model;
        platform.attach_loop(loop);
    }

    void run() { platform.run_ready(); }
    qv_thread_master* master() { return qv::master_of(loop); }

    static qv::Port port(uint32_t ifx) {
        qv::Port made;
        made.ifx = ifx;
        made.phyid = 100 + ifx;
        made.name = "swp" + std::to_string(ifx);
        return made;
    }

    // Reports a changed copy of a port.
    template <typename Change>
    void change(uint32_t ifx, Change change_fields) {
        qv::Port changed = *model.find(ifx);
        change_fields(changed);
        model.port_changed(changed);
    }

    qv::test::TestPlatform platform;
    qv::EventLoop loop{platform.manual_clock};
    ScriptedSwitch driver;
    qv::PortModel model{driver};
};
