#include "platform/base/folders.h"

#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

namespace qv {
namespace {

constexpr mode_t kFolderMode = 0750;

void make_folder(const std::filesystem::path& folder) {
    struct stat status {};
    if (folder.empty() || ::stat(folder.c_str(), &status) == 0) {
        return;
    }
    make_folder(folder.parent_path());
    if (::mkdir(folder.c_str(), kFolderMode & S_IRWXU) == 0) {
        // The umask does not count here. Nobody else could use the folder before.
        static_cast<void>(::chmod(folder.c_str(), kFolderMode));
    }
}

void check_folder(const std::string& folder) {
    struct stat status {};
    if (::stat(folder.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0 &&
        (status.st_mode & S_ISVTX) == 0) {
        throw std::runtime_error("every user may exchange files in the folder " + folder +
                                 ": take the right away with \"chmod o-w\"");
    }
}

void check_folder_of(const std::string& file) {
    if (!file.empty()) {
        const std::string folder = std::filesystem::path(file).parent_path().string();
        check_folder(folder.empty() ? "." : folder);
    }
}

}  // namespace

void make_folder_of(const std::string& file) {
    make_folder(std::filesystem::path(file).parent_path());
}

void check_folders(const PlatformConfig& config) {
    check_folder_of(config.startup_config);
    check_folder_of(config.cli_socket);
    for (const std::string& folder : {config.log_dir, config.tarn_state, config.netconf_runtime}) {
        if (!folder.empty()) {
            check_folder(folder);
        }
    }
}

}  // namespace qv
