// The answers of tarnd, as lines for a reader.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace tarnctl {

using Json = nlohmann::ordered_json;

// The heading of the rows that port_text() gives.
std::string ports_heading();
std::string port_text(const Json& port);
// One line for each counter.
std::string counters_text(const Json& counters);
std::string event_text(const Json& event);
std::string returned_text(const Json& returned);

}  // namespace tarnctl
