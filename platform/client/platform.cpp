#include "platform/client/platform.h"

#include <cstdio>
#include <cstdlib>

#include "platform/base/message_log.h"

namespace qv {
namespace {

Platform* g_platform = nullptr;
PlatformMaker g_maker = nullptr;

}  // namespace

Platform& platform() {
    if (!g_platform) {
        if (!g_maker) {
            std::fputs("lda: no platform is installed\n", stderr);
            std::abort();
        }
        install_platform(*g_maker().release());  // lives as long as the process
    }
    return *g_platform;
}

void install_platform(Platform& platform) {
    g_platform = &platform;
    use_system_log(platform.system_log());
}

void set_platform_maker(PlatformMaker maker) {
    g_maker = maker;
}

}  // namespace qv
