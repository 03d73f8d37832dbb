// A configuration file: cut into sections, and applied in place of the running configuration. The
// switch must then accept its own saved configuration without a complaint.
#include <fstream>
#include <string>

#include "platform/cli/config_file.h"
#include "platform/cli/engine.h"
#include "platform/cli/running_config.h"
#include "tests/fuzz/agent.h"

using namespace qv;

namespace {

void check_sections(std::string_view text) {
    int number = 0;
    for (const cli::ConfigSection& section : cli::parse_config(text)) {
        fuzz::require(section.port.find_first_of(" \n") == std::string::npos, "a port's name");
        for (const cli::ConfigLine& line : section.lines) {
            fuzz::require(line.number > number, "lines keep their order");
            fuzz::require(!line.text.empty() && line.text.find('\n') == std::string::npos,
                          "a line is one line");
            number = line.number;
        }
    }
}

cli::Result replace_by(std::string_view text) {
    std::ofstream("fuzz.cfg", std::ios::binary) << text;
    cli::SessionState session;
    return cli::execute(session, "configure replace fuzz.cfg");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::start_agent();
    check_sections(fuzz::text_of(data, size));
    replace_by(fuzz::text_of(data, size));
    fuzz::let_agent_run();
    const std::string own = cli::generate_config(cli::ConfigPurpose::kSave);
    const cli::Result again = replace_by(own + "end\n");
    fuzz::require(again.code == 0 && again.output.empty(), "the switch takes what it wrote");
    fuzz::require(cli::generate_config(cli::ConfigPurpose::kSave) == own, "and is as before");
    return 0;
}
