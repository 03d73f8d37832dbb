// The level file that is read when logging starts. The linker hands fopen() to this file.
#include <cstdio>
#include <string>
#include <string_view>

#include "app_debug.h"
#include "tests/fuzz/agent.h"

namespace {

std::string g_level_file;

}  // namespace

extern "C" {

FILE* __real_fopen(const char* path, const char* mode);

FILE* __wrap_fopen(const char* path, const char* mode) {
    if (std::string_view(path) != "/data/lda/lda.dbg" || g_level_file.empty()) {
        return __real_fopen(path, mode);
    }
    return fmemopen(g_level_file.data(), g_level_file.size(), mode);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qv::fuzz::start_agent();
    g_level_file = qv::fuzz::text_of(data, size);
    qv::fuzz::require(app_debug_init("lda", "LDA") == 0, "logging starts");
    qv::fuzz::require(app_logfile_level_name(g_app_zlog_level) != nullptr &&
                          app_slog_level_name(g_dbg_slog_level) != nullptr,
                      "every level has a name");
    APP_ERROR("a line at whatever level %d", g_app_zlog_level);
    return 0;
}

}  // extern "C"
