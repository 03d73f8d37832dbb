// A journal and a sealed configuration, as a crash, a full disk or a stranger may have left them.
#include <string>

#include "platform/cli/config_file.h"
#include "platform/cli/journal.h"
#include "tests/fuzz/agent.h"
#include "tests/fuzz/memory_file.h"

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text = fuzz::text_of(data, size);
    const fuzz::MemoryFile file(text);
    uint64_t last = 0;
    for (const cli::JournalRecord& record : cli::read_journal(file.path())) {
        fuzz::require(record.number > last || (record.saved && record.number == last),
                      "numbers grow");
        last = record.number;
        fuzz::require(record.section.port.find_first_of(" \n") == std::string::npos,
                      "a port's name");
        for (const cli::ConfigLine& line : record.section.lines) {
            fuzz::require(line.text.find('\n') == std::string::npos, "a line is one line");
        }
    }
    const cli::UnsealedConfig config = cli::unseal_config(text);
    fuzz::require(text.starts_with(config.text), "nothing is added");
    fuzz::require(config.intact || config.text.empty() || config.text.back() == '\n',
                  "only whole lines of a text without a seal");
    return 0;
}
