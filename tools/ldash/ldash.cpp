// The operator's shell: interactive on a terminal, else lines from "-c" or standard input. With
// "--check" it has a configuration file checked.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "connection.h"
#include "platform/base/config.h"
#include "platform/base/visible.h"
#include "shell.h"

namespace {

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kNotReachable = 2;

constexpr int kCheck = 256;  // in place of an option's letter

constexpr const char* kUsage =
    "usage: ldash [-s SOCKET] [-c LINE]...\n"
    "       ldash [-s SOCKET] --check FILE\n"
    "\n"
    "  -s SOCKET  command-line socket of the switch; else LDA_CLI_SOCKET,\n"
    "             else /run/lda/cli.sock\n"
    "  -c LINE    executes the line and ends; several are executed in one session\n"
    "  --check FILE\n"
    "             checks a configuration as \"configure replace\" does, changes\n"
    "             nothing, and prints FILE:LINE: REASON for each bad line\n"
    "\n"
    "Without -c: a shell on a terminal, with history, TAB and ?; otherwise the\n"
    "lines of standard input. Both end at the first line that is refused.\n"
    "Exit status: 0 done, 1 refused, 2 not reachable or wrong usage.\n";

struct Options {
    std::string socket = qv::PlatformConfig().cli_socket;
    std::vector<std::string> lines;
    std::string checked;  // file to check; empty: none
};

[[noreturn]] void end_with_usage() {
    std::fputs(kUsage, stderr);
    std::exit(kNotReachable);
}

// Ends the program for --help and wrong usage.
Options read_options(int argc, char** argv) {
    Options options;
    if (const char* socket = std::getenv("LDA_CLI_SOCKET")) {
        options.socket = socket;
    }
    const option long_options[] = {
        {"help", no_argument, nullptr, 'h'}, {"check", required_argument, nullptr, kCheck}, {}};
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "s:c:h", long_options, nullptr)) != -1) {
        if (letter == 's') {
            options.socket = optarg;
        } else if (letter == 'c') {
            options.lines.emplace_back(optarg);
        } else if (letter == kCheck && *optarg != '\0') {
            options.checked = optarg;
        } else if (letter == 'h') {
            std::fputs(kUsage, stdout);
            std::exit(kDone);
        } else {
            end_with_usage();
        }
    }
    if (optind < argc || !(options.lines.empty() || options.checked.empty())) {
        end_with_usage();
    }
    return options;
}

// Executes one line and shows its output. Sets the status; returns false when no further line may
// run.
bool execute(ldash::Connection& connection, const std::string& line, int& status) {
    const ldash::Reply reply = connection.ask("exec", line);
    std::fputs(reply.output.c_str(), stdout);
    std::fflush(stdout);
    status = reply.result == 0 ? kDone : kRefused;
    return status == kDone && !reply.end;
}

int run_lines(ldash::Connection& connection, const std::vector<std::string>& lines) {
    int status = kDone;
    for (const std::string& line : lines) {
        if (!execute(connection, line, status)) {
            break;
        }
    }
    return status;
}

// The switch opens the file, from its own folder.
int check_file(ldash::Connection& connection, const std::string& file) {
    const ldash::Reply reply = connection.ask("check", std::filesystem::absolute(file).string());
    std::fputs(reply.output.c_str(), stderr);
    return reply.result == 0 ? kDone : kRefused;
}

int run_script(ldash::Connection& connection) {
    int status = kDone;
    int number = 0;
    std::string line;
    while (std::getline(std::cin, line)) {
        ++number;
        if (!execute(connection, line, status)) {
            break;
        }
    }
    if (status == kRefused) {
        std::fprintf(stderr, "ldash: line %d was refused\n", number);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = read_options(argc, argv);
    try {
        ldash::Connection connection(options.socket);
        if (!options.checked.empty()) {
            return check_file(connection, options.checked);
        }
        if (!options.lines.empty()) {
            return run_lines(connection, options.lines);
        }
        if (isatty(STDIN_FILENO) == 0) {
            return run_script(connection);
        }
        ldash::run_shell(connection);
        return kDone;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "ldash: %s\n", qv::visible(problem.what()).c_str());
        return kNotReachable;
    }
}
