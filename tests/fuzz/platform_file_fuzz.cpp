// The platform file: read as a whole, or refused with the file, a line and a reason.
#include <stdexcept>
#include <string>

#include "platform/base/config.h"
#include "tests/fuzz/agent.h"
#include "tests/fuzz/memory_file.h"

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::MemoryFile file(fuzz::text_of(data, size));
    try {
        const PlatformConfig config = load_platform_config(file.path());
        fuzz::require(config.embedded_ports >= 1 && config.embedded_ports <= 4096,
                      "the number of ports is in its range");
        fuzz::require(config.speed > 0 && config.speed <= 10000, "the speed is in its range");
        fuzz::require(!config.bridge.empty() && config.bridge.size() < 16, "a bridge's name");
        fuzz::require(config.cli_socket.size() < 108 && config.redis.socket.size() < 108,
                      "a socket's path fits");
    } catch (const std::runtime_error& refusal) {
        fuzz::require(std::string(refusal.what()).starts_with(file.path() + ":"),
                      "a refusal names the file");
    }
    return 0;
}
