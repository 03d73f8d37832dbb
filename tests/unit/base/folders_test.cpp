#include "platform/base/folders.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "tests/support/temporary_directory.h"

namespace qv {
namespace {

mode_t mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

std::string fault_of(const PlatformConfig& config) {
    try {
        check_folders(config);
        return "";
    } catch (const std::exception& fault) {
        return fault.what();
    }
}

TEST(Folders, MissingOnesAreMadeWithTheirModeWhateverTheUmask) {
    for (const mode_t mask : {mode_t{0}, mode_t{077}, mode_t{0777}}) {
        const test::TemporaryDirectory directory;
        const mode_t before = umask(mask);
        make_folder_of(directory.file("a/b/socket"));
        umask(before);
        EXPECT_EQ(mode_of(directory.file("a")), 0750U);
        EXPECT_EQ(mode_of(directory.file("a/b")), 0750U);
        EXPECT_FALSE(std::filesystem::exists(directory.file("a/b/socket")));
    }
}

TEST(Folders, ExistingOnesKeepTheirMode) {
    const test::TemporaryDirectory directory;
    ::mkdir(directory.file("a").c_str(), 0700);
    ::chmod(directory.file("a").c_str(), 0711);
    make_folder_of(directory.file("a/socket"));
    EXPECT_EQ(mode_of(directory.file("a")), 0711U);
}

TEST(Folders, NoneMayBeWritableForOthers) {
    const test::TemporaryDirectory directory;
    const std::string folder = directory.file("open");
    ::mkdir(folder.c_str(), 0700);
    const std::function<void(PlatformConfig&)> uses[] = {
        [&](PlatformConfig& config) { config.startup_config = folder + "/startup.cfg"; },
        [&](PlatformConfig& config) { config.cli_socket = folder + "/cli.sock"; },
        [&](PlatformConfig& config) { config.log_dir = folder; },
        [&](PlatformConfig& config) { config.tarn_state = folder; },
        [&](PlatformConfig& config) {
            config.netconf_runtime = folder;
        }};
    for (const auto& use : uses) {
        PlatformConfig config;
        config.cli_socket = directory.file("cli.sock");
        config.tarn_state = directory.file("none");
        config.netconf_runtime = directory.file("none");
        use(config);
        ::chmod(folder.c_str(), 0777);
        EXPECT_EQ(fault_of(config), "every user may exchange files in the folder " + folder +
                                        ": take the right away with \"chmod o-w\"");
        ::chmod(folder.c_str(), 01777);
        EXPECT_EQ(fault_of(config), "");
        ::chmod(folder.c_str(), 0775);
        EXPECT_EQ(fault_of(config), "");
    }
}

}  // namespace
}  // namespace qv
