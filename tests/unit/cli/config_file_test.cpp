// Configuration files: sections, seals, and replacing a file as a whole.
#include "platform/cli/config_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::replace_file;
using qv::cli::seal_config;
using qv::cli::unseal_config;
using qv::test::read_text;
using qv::test::write_text;

// The calls that the linker redirects here: their arguments, and whether they fail.
int g_file_syncs = 0;
int g_folder_syncs = 0;
int g_folder_error = 0;
int g_file_error = 0;
int g_read_error = 0;  // of the next call, like the next two
int g_write_error = 0;
int g_chown_error = 0;
mode_t g_mode_at_chown = 0;
std::function<void()> g_before_read;  // called once

TEST(ConfigFile, SectionsKeepNumbersAndLoseIndentation) {
    const auto sections =
        qv::cli::parse_config(" a b\r\n\ninterface swp1\n  c\n!\nd\ninterface range swp1-2\n");
    ASSERT_EQ(sections.size(), 3U);
    EXPECT_EQ(sections[0].port, "");
    EXPECT_EQ(sections[0].lines[0].text, "a b");
    EXPECT_EQ(sections[1].port, "swp1");
    EXPECT_EQ(sections[1].number, 3);
    EXPECT_EQ(sections[1].lines[0].number, 4);
    EXPECT_EQ(sections[1].lines[0].text, "c");
    EXPECT_EQ(sections[2].lines.size(), 2U);
    EXPECT_EQ(sections[2].lines[1].text, "interface range swp1-2");
}

TEST(ConfigFile, SealHasTheJournalsNumberAndAChecksum) {
    // The checksum is that of zip, gzip and Ethernet: CRC-32 of the first three lines.
    EXPECT_EQ(qv::cli::checksum("123456789"), "cbf43926");
    EXPECT_EQ(seal_config("tarn enable\nend\n", 12),
              "tarn enable\nend\n! journal 12\n! checksum " +
                  qv::cli::checksum("tarn enable\nend\n! journal 12\n") + "\n");
}

TEST(ConfigFile, SealedTextIsReadBackWhole) {
    const auto config = unseal_config(seal_config("tarn enable\nend\n", 12));
    EXPECT_TRUE(config.intact);
    EXPECT_EQ(config.text, "tarn enable\nend\n");
    EXPECT_EQ(config.journal, 12U);
}

TEST(ConfigFile, TextCutOffAnywhereLosesItsSealAndItsLastLine) {
    const std::string text =
        "loop-detect enable shutdown access-hybrid-mode\ninterface swp1\n storm-loop-rate "
        "ratelimit "
        "123456\n!\nend\n";
    const std::string sealed = seal_config(text, 7);
    for (size_t length = 0; length < sealed.size(); ++length) {
        const auto config = unseal_config(sealed.substr(0, length));
        EXPECT_FALSE(config.intact) << length;
        EXPECT_EQ(config.journal, 0U) << length;
        // Complete lines only, without the last one.
        EXPECT_TRUE(config.text.empty() || config.text.back() == '\n') << length;
        EXPECT_TRUE(sealed.starts_with(config.text)) << length;
        EXPECT_LT(config.text.size(), length == 0 ? 1 : length) << length;
    }
    EXPECT_EQ(unseal_config(sealed.substr(0, 18)).text, "");
}

TEST(ConfigFile, ChangedByteBreaksTheSeal) {
    const std::string sealed = seal_config("loop-detect enable\nend\n", 3);
    for (size_t at = 0; at < sealed.size(); ++at) {
        std::string damaged = sealed;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        EXPECT_FALSE(unseal_config(damaged).intact) << at;
    }
}

TEST(ConfigFile, SealOverATextWithoutEndIsInvalid) {
    EXPECT_FALSE(unseal_config(seal_config("loop-detect enable\n", 3)).intact);
    const std::string no_number = "end\n! journal x\n";
    EXPECT_FALSE(
        unseal_config(no_number + "! checksum " + qv::cli::checksum(no_number) + "\n").intact);
    const std::string no_journal = "loop-detect enable\nend\n";
    EXPECT_FALSE(
        unseal_config(no_journal + "! checksum " + qv::cli::checksum(no_journal) + "\n").intact);
}

TEST(ConfigFile, FileIsReplacedAsAWhole) {
    const qv::test::TestFolder folder;
    const std::string path = folder.file("f");
    write_text(path, "a long old text\n");
    EXPECT_EQ(replace_file(path, "new\n"), "");
    EXPECT_EQ(read_text(path), "new\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

mode_t mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST(ConfigFile, FreshFileIsKeptToItsOwnerAndGroupWhateverTheUmask) {
    const qv::test::TestFolder folder;
    const mode_t before = ::umask(0);
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "");
    ::umask(before);
    EXPECT_EQ(mode_of(folder.file("f")), 0640U);
    EXPECT_EQ(replace_file(folder.file("none/f"), "x"), "No such file or directory");
}

TEST(ConfigFile, ReplacedFileKeepsItsModeAndOwner) {
    const qv::test::TestFolder folder;
    const std::string path = folder.file("f");
    write_text(path, "old\n");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(replace_file(path, "new\n"), "");
    EXPECT_EQ(mode_of(path), 0600U);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(path.c_str(), 12, 34), 0);
        EXPECT_EQ(replace_file(path, "newer\n"), "");
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 12U);
        EXPECT_EQ(status.st_gid, 34U);
    }
}

TEST(ConfigFile, SymbolicLinkStaysAndItsTargetIsReplaced) {
    const qv::test::TestFolder folder;
    std::filesystem::create_directory(folder.file("disk"));
    write_text(folder.file("disk/real"), "old\n");
    std::filesystem::create_symlink("disk/real", folder.file("link"));
    EXPECT_EQ(replace_file(folder.file("link"), "new\n"), "");
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link")));
    EXPECT_EQ(read_text(folder.file("disk/real")), "new\n");
    // Also when the target does not exist.
    std::filesystem::create_symlink("disk/fresh", folder.file("dangling"));
    EXPECT_EQ(replace_file(folder.file("dangling"), "made\n"), "");
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("dangling")));
    EXPECT_EQ(read_text(folder.file("disk/fresh")), "made\n");
}

TEST(ConfigFile, LinkInPlaceOfTheFreshFileIsNotFollowed) {
    const qv::test::TestFolder folder;
    write_text(folder.file("precious"), "precious");
    std::filesystem::create_symlink(folder.file("precious"), folder.file("f.new"));
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "");
    EXPECT_EQ(read_text(folder.file("precious")), "precious");
    EXPECT_EQ(read_text(folder.file("f")), "text\n");
}

TEST(ConfigFile, FullDiskLeavesTheOldFileAndNothingBesideIt) {
    const qv::test::TestFolder folder;
    write_text(folder.file("f"), "old\n");
    {
        const qv::test::FullDisk full(10);
        EXPECT_EQ(replace_file(folder.file("f"), "longer than ten bytes\n"), "File too large");
    }
    EXPECT_EQ(read_text(folder.file("f")), "old\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file("f.new")));
}

TEST(ConfigFile, FileAndItsFolderAreSynced) {
    const qv::test::TestFolder folder;
    g_file_syncs = 0;
    g_folder_syncs = 0;
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "");
    EXPECT_EQ(g_file_syncs, 1);
    EXPECT_EQ(g_folder_syncs, 1);
}

TEST(ConfigFile, FileThatCannotBeSyncedIsNotPutInPlace) {
    const qv::test::TestFolder folder;
    write_text(folder.file("f"), "old\n");
    g_file_error = EIO;
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "Input/output error");
    g_file_error = 0;
    EXPECT_EQ(read_text(folder.file("f")), "old\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file("f.new")));
}

TEST(ConfigFile, FolderThatCannotBeSyncedIsATrouble) {
    const qv::test::TestFolder folder;
    g_folder_error = EIO;
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "Input/output error");
    g_folder_error = EINVAL;  // of a file system that need not sync folders
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "");
    g_folder_error = 0;
}

TEST(ConfigFile, OnlyFilesAreRead) {
    const qv::test::TestFolder folder;
    ASSERT_EQ(::mkfifo(folder.file("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(qv::cli::read_config_file(folder.file("pipe")));
    EXPECT_FALSE(qv::cli::read_config_file(folder.path()));
    EXPECT_FALSE(qv::cli::read_config_file(folder.file("none")));
    write_text(folder.file("f"), "one\ntwo");
    EXPECT_EQ(qv::cli::read_config_file(folder.file("f")), "one\ntwo");
}

TEST(ConfigFile, FileBeyondTheLimitIsNotRead) {
    const qv::test::TestFolder folder;
    const std::string path = folder.file("f");
    write_text(path, "");
    constexpr off_t kLimit = 16 << 20;
    ASSERT_EQ(::truncate(path.c_str(), kLimit), 0);
    EXPECT_TRUE(qv::cli::read_config_file(path));
    ASSERT_EQ(::truncate(path.c_str(), kLimit + 1), 0);
    errno = 0;
    EXPECT_FALSE(qv::cli::read_config_file(path));
    EXPECT_EQ(errno, EFBIG);
}

TEST(ConfigFile, EveryWordThatEndsASectionDoes) {
    for (const char* end : {"!", "! a word", "exit", "end"}) {
        const auto sections =
            qv::cli::parse_config(std::string("interface swp1\n a\n") + end + "\nb\n");
        ASSERT_EQ(sections.size(), 3U) << end;
        EXPECT_EQ(sections[1].lines.size(), 1U) << end;
        ASSERT_EQ(sections[2].lines.size(), 1U) << end;
        EXPECT_EQ(sections[2].lines[0].text, "b") << end;
    }
}

TEST(ConfigFile, LineOfBlanksIsIgnored) {
    const auto sections = qv::cli::parse_config("\r\n \t\r\n\r a\n");
    ASSERT_EQ(sections.size(), 1U);
    ASSERT_EQ(sections[0].lines.size(), 1U);
    EXPECT_EQ(sections[0].lines[0].text, "a");
    EXPECT_EQ(sections[0].lines[0].number, 3);
}

TEST(ConfigFile, SealNeedsItsOwnMarkAndNothingAfterTheNumber) {
    for (const char* number : {"! Journal 7\n", "! journal 7x\n", "! journal \n"}) {
        const std::string text = std::string("end\n") + number;
        const auto config = unseal_config(text + "! checksum " + qv::cli::checksum(text) + "\n");
        EXPECT_FALSE(config.intact) << number;
        EXPECT_EQ(config.journal, 0U) << number;
        EXPECT_EQ(config.text, text) << number;
    }
}

TEST(ConfigFile, ChainOfLinksIsFollowedToItsEnd) {
    const qv::test::TestFolder folder;
    std::filesystem::create_directory(folder.file("disk"));
    write_text(folder.file("disk/real"), "old\n");
    std::filesystem::create_symlink("real", folder.file("disk/middle"));
    std::filesystem::create_symlink("disk/middle", folder.file("link"));
    EXPECT_EQ(replace_file(folder.file("link"), "new\n"), "");
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("disk/middle")));
    EXPECT_EQ(read_text(folder.file("disk/real")), "new\n");
}

TEST(ConfigFile, NameWithoutAFolderIsOneInTheWorkingFolder) {
    const qv::test::TestFolder folder;
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    g_folder_syncs = 0;
    EXPECT_EQ(replace_file("f", "text\n"), "");
    std::filesystem::current_path(before);
    EXPECT_EQ(read_text(folder.file("f")), "text\n");
    EXPECT_EQ(g_folder_syncs, 1);
}

// An alarm ends the call if it blocks.
TEST(ConfigFile, ReadingAPipeWaitsForNobody) {
    const qv::test::TestFolder folder;
    ASSERT_EQ(::mkfifo(folder.file("pipe").c_str(), 0600), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {
    };
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    ::alarm(5);
    EXPECT_FALSE(qv::cli::read_config_file(folder.file("pipe")));
    EXPECT_EQ(errno, EINVAL);
    ::alarm(0);
}

// Each refused write raises a signal. A writer that does not give up is given room in the end.
int g_refused_writes = 0;

TEST(ConfigFile, RefusedWriteIsNotTriedAgain) {
    const qv::test::TestFolder folder;
    const qv::test::FullDisk full(10);
    struct sigaction action {};
    action.sa_handler = [](int) {
        if (++g_refused_writes == 100) {
            rlimit limit{};
            getrlimit(RLIMIT_FSIZE, &limit);
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_FSIZE, &limit);
        }
    };
    ASSERT_EQ(::sigaction(SIGXFSZ, &action, nullptr), 0);
    EXPECT_EQ(replace_file(folder.file("f"), "longer than ten bytes\n"), "File too large");
    EXPECT_EQ(g_refused_writes, 1);
}

TEST(ConfigFile, InterruptedCallsAreMadeAgain) {
    const qv::test::TestFolder folder;
    g_write_error = EINTR;
    EXPECT_EQ(replace_file(folder.file("f"), "text\n"), "");
    EXPECT_EQ(g_write_error, 0);
    g_read_error = EINTR;
    EXPECT_EQ(qv::cli::read_config_file(folder.file("f")), "text\n");
    EXPECT_EQ(g_read_error, 0);
}

TEST(ConfigFile, UnreadableFileYieldsNothing) {
    const qv::test::TestFolder folder;
    write_text(folder.file("f"), "text\n");
    g_read_error = EIO;
    EXPECT_FALSE(qv::cli::read_config_file(folder.file("f")));
    EXPECT_EQ(errno, EIO);
}

TEST(ConfigFile, FileThatGetsShorterIsReadToItsEnd) {
    const qv::test::TestFolder folder;
    write_text(folder.file("f"), "text\n");
    g_before_read = [&] {
        std::filesystem::resize_file(folder.file("f"), 2);
    };
    EXPECT_EQ(qv::cli::read_config_file(folder.file("f")), "te");
}

// Runs without the privilege to set the file's owner.
TEST(ConfigFile, FileOfAnotherUserIsOpenedToNoGroup) {
    const qv::test::TestFolder folder;
    write_text(folder.file("f"), "old\n");
    ASSERT_EQ(::chmod(folder.file("f").c_str(), 0660), 0);
    const mode_t before = ::umask(0);
    g_chown_error = EPERM;
    EXPECT_EQ(replace_file(folder.file("f"), "new\n"), "");
    ::umask(before);
    EXPECT_EQ(g_mode_at_chown, 0600U) << "nobody may open it before its owner is known";
    EXPECT_EQ(mode_of(folder.file("f")), 0600U);
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming): the linker's names
extern "C" {
int __real_fsync(int fd);
ssize_t __real_read(int fd, void* bytes, size_t size);
ssize_t __real_write(int fd, const void* bytes, size_t size);
int __real_fchown(int fd, uid_t owner, gid_t group);

int __wrap_fsync(int fd) {
    struct stat status {};
    ::fstat(fd, &status);
    const bool folder = S_ISDIR(status.st_mode);
    ++(folder ? g_folder_syncs : g_file_syncs);
    errno = folder ? g_folder_error : g_file_error;
    return errno != 0 ? -1 : __real_fsync(fd);
}

ssize_t __wrap_read(int fd, void* bytes, size_t size) {
    if (const auto before = std::exchange(g_before_read, nullptr)) {
        before();
    }
    if (g_read_error != 0) {
        errno = std::exchange(g_read_error, 0);
        return -1;
    }
    return __real_read(fd, bytes, size);
}

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    if (g_write_error != 0) {
        errno = std::exchange(g_write_error, 0);
        return -1;
    }
    return __real_write(fd, bytes, size);
}

int __wrap_fchown(int fd, uid_t owner, gid_t group) {
    if (g_chown_error != 0) {
        struct stat status {};
        ::fstat(fd, &status);
        g_mode_at_chown = status.st_mode & 07777;
        errno = std::exchange(g_chown_error, 0);
        return -1;
    }
    return __real_fchown(fd, owner, group);
}
}
// NOLINTEND(readability-identifier-naming)
