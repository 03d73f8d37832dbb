// Shows what the loop-probe service knows, and asks it for single probes.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/base/config.h"
#include "platform/base/line_client.h"
#include "platform/base/tarn_names.h"
#include "platform/base/visible.h"
#include "texts.h"

namespace {

using tarnctl::Json;

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kNotReachable = 2;

constexpr const char* kUsage =
    "usage: tarnctl [-s SOCKET] [--json] COMMAND\n"
    "\n"
    "  show [PORT]  state, role and guard of each port, and its last loop\n"
    "  counters     what has been sent, found and ignored since tarnd began\n"
    "  watch        loops and cuts as they happen, until it is interrupted\n"
    "  probe PORT   sends one probe now and says what comes back within a second\n"
    "\n"
    "  -s SOCKET    control socket of tarnd; else \"control\" in the folder [tarn] state\n"
    "               of the platform file that LDA_PLATFORM names\n"
    "  --json       a JSON object for each line\n"
    "\n"
    "Exit status: 0 done, 1 refused, 2 not reachable or wrong usage.\n";

struct Options {
    std::string socket;
    bool json = false;
    std::string command;
    std::string port;
};

// Ends the program for --help and wrong usage.
[[noreturn]] void explain(bool asked) {
    std::fputs(kUsage, asked ? stdout : stderr);
    std::exit(asked ? kDone : kNotReachable);
}

Options read_options(int argc, char** argv) {
    Options options;
    const option long_options[] = {
        {"help", no_argument, nullptr, 'h'}, {"json", no_argument, nullptr, 'j'}, {}};
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "s:hj", long_options, nullptr)) != -1) {
        if (letter == 's') {
            options.socket = optarg;
        } else if (letter == 'j') {
            options.json = true;
        } else {
            explain(letter == 'h');
        }
    }
    const std::vector<std::string> words(argv + optind, argv + argc);
    options.command = words.empty() ? "" : words[0];
    options.port = words.size() > 1 ? words[1] : "";
    const bool fits = options.command == "show"    ? words.size() <= 2
                      : options.command == "probe" ? words.size() == 2
                                                   : words.size() == 1;
    const bool known = options.command == "show" || options.command == "counters" ||
                       options.command == "watch" || options.command == "probe";
    if (!known || !fits) {
        explain(false);
    }
    return options;
}

std::string socket_of(const Options& options) {
    if (!options.socket.empty()) {
        return options.socket;
    }
    const char* const file = std::getenv("LDA_PLATFORM");
    const qv::PlatformConfig config =
        file != nullptr && *file != '\0' ? qv::load_platform_config(file) : qv::PlatformConfig();
    return qv::tarn_control_socket(config);
}

// A line of the answer, for a reader.
std::string text_of(const Json& line) {
    if (line.contains("counters")) {
        return tarnctl::counters_text(line["counters"]);
    }
    if (line.contains("event")) {
        return tarnctl::event_text(line);
    }
    if (line.contains("returned")) {
        return tarnctl::returned_text(line);
    }
    return line.contains("state") ? tarnctl::port_text(line) : "";
}

void print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

// The next line of the answer, an object. Throws std::runtime_error when the connection is lost.
Json next(qv::LineClient& service) {
    Json line = Json::parse(service.next_line(), nullptr, false);
    if (!line.is_object()) {
        service.lost();
    }
    return line;
}

int run(const Options& options) {
    qv::LineClient service(socket_of(options), "tarnd");
    Json request = {{"do", options.command}};
    if (!options.port.empty()) {
        request["port"] = options.port;
    }
    service.send(request.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    size_t lines = 0;
    for (Json line = next(service); !line.contains("done"); line = next(service)) {
        if (line.contains("error")) {
            std::fprintf(stderr, "tarnctl: %s\n", qv::visible(line.value("error", "")).c_str());
            return kRefused;
        }
        if (line.contains("watching")) {
            continue;
        }
        if (options.command == "show" && !options.json && lines == 0) {
            print(tarnctl::ports_heading());
        }
        print(options.json ? line.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n"
                           : qv::visible(text_of(line), "\n"));
        ++lines;
    }
    if (options.command == "probe" && !options.json && lines == 0) {
        print("nothing came back\n");
    }
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = read_options(argc, argv);
    try {
        return run(options);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "tarnctl: %s\n", qv::visible(problem.what()).c_str());
        return kNotReachable;
    }
}
