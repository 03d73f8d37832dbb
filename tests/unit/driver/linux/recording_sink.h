// A port sink that keeps the table a driver describes, the reports as text, and refuses reports
// that do not fit the table.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/driver/switch_driver.h"

namespace qv::test {

class RecordingSink final : public PortSink {
 public:
    void port_added(const Port& port) override {
        EXPECT_TRUE(ports.emplace(port.ifx, port).second) << port.name << " added twice";
        reports.push_back("added " + port.name);
    }
    void port_removed(uint32_t ifx) override {
        reports.push_back("removed " + name(ifx));
        EXPECT_EQ(ports.erase(ifx), 1u) << "unknown port removed";
    }
    void port_changed(const Port& port) override {
        EXPECT_TRUE(ports.contains(port.ifx)) << port.name << " changed without being there";
        ports[port.ifx] = port;
        reports.push_back("changed " + port.name);
        if (const auto act = std::exchange(on_next_change, nullptr)) {
            act();
        }
    }
    void port_left_bridge(uint32_t ifx) override { reports.push_back("left " + name(ifx)); }
    void ports_complete() override { reports.push_back("complete"); }

    // Null when no port has the name.
    const Port* find(const std::string& wanted) const {
        for (const auto& [ifx, port] : ports) {
            if (port.name == wanted) {
                return &port;
            }
        }
        return nullptr;
    }
    // The reports since the last call.
    std::vector<std::string> take() { return std::exchange(reports, {}); }

    std::map<uint32_t, Port> ports;
    std::vector<std::string> reports;
    std::function<void()> on_next_change;  // runs once, inside the report of a change

 private:
    std::string name(uint32_t ifx) const {
        const auto found = ports.find(ifx);
        EXPECT_NE(found, ports.end()) << "report about an unknown port";
        return found != ports.end() ? found->second.name : "?";
    }
};

}  // namespace qv::test
