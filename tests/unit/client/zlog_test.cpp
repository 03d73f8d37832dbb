#include "qv/zlog.h"

#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/base/visible.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_platform.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

// The library is initialised once in a process, so each of these tests runs in its own process.
struct ZlogTest : testing::Test {
    test::TestPlatform platform;
    test::TemporaryDirectory directory;

    // The lines without their times.
    Lines lines(const std::string& file = "lda.log") {
        Lines texts = directory.lines_of(file);
        for (std::string& text : texts) {
            text = text.substr(std::string("2026-01-31 23:59:59.123 ").size());
        }
        return texts;
    }
};

TEST_F(ZlogTest, LinesGoToTheFileWithTimeAndLevel) {
    platform.settings.log_dir = directory.path();
    qv_zlog_category* const category = qv_zlog_init("lda");
    ASSERT_NE(category, nullptr);
    qvdf_zlog(category, "app/src/a.cpp", "main", 12, QV_ZLOG_INFO, "<main:12> first\n");
    qvdf_zlog(category, "app/src/a.cpp", "main", 13, QV_ZLOG_WARN, "<main:13> 100%s no line end");
    qvdf_zlog(category, nullptr, nullptr, 0, QV_ZLOG_DEBUG, "");
    EXPECT_EQ(lines(),
              (Lines{"INFO <main:12> first", "WARN <main:13> 100%s no line end", "DEBUG "}));
    EXPECT_EQ(qv_zlog_init("lda"), category);
    EXPECT_EQ(qv_zlog_init("other"), nullptr);
}

TEST_F(ZlogTest, ControlCharactersOfALineAreWrittenAsTheirCodes) {
    platform.settings.log_dir = directory.path();
    qv_zlog_category* const category = qv_zlog_init("lda");
    ASSERT_NE(category, nullptr);
    qvdf_zlog(category, "f", "g", 1, QV_ZLOG_INFO, "a\x1b[2J b\xc2\x9b\n");
    qvdf_zlog(category, "f", "g", 1, QV_ZLOG_INFO, "a \r\n");
    EXPECT_EQ(lines(), (Lines{"INFO a\\x1b[2J b\\xc2\\x9b", "INFO a \r"}));
}

TEST_F(ZlogTest, NullsAndLevelsOutOfRangeAreDropped) {
    platform.settings.log_dir = directory.path();
    qv_zlog_category* const category = qv_zlog_init("lda");
    ASSERT_NE(category, nullptr);
    for (const int level : {-1, 0, 255, 256, 1 << 20, 2147483647}) {
        qvdf_zlog(category, "f", "g", 1, level, "dropped");
    }
    qvdf_zlog(nullptr, "f", "g", 1, QV_ZLOG_FATAL, "dropped");
    qvdf_zlog(category, "f", "g", 1, QV_ZLOG_FATAL, nullptr);
    qvdf_zlog(category, "f", "g", 1, 254, "kept");
    EXPECT_EQ(lines(), Lines{"UNKNOWN kept"});
}

TEST_F(ZlogTest, WithoutADirectoryLinesAreDropped) {
    qv_zlog_category* const category = qv_zlog_init("lda");
    ASSERT_NE(category, nullptr);
    qvdf_zlog(category, "f", "g", 1, QV_ZLOG_FATAL, "dropped");
    EXPECT_FALSE(std::filesystem::exists("lda.log"));
}

TEST_F(ZlogTest, DirectoryThatIsNotThereIsAnErrorWithItsReason) {
    platform.settings.log_dir = directory.file("none");
    testing::internal::CaptureStderr();
    EXPECT_EQ(qv_zlog_init("lda"), nullptr);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "lda: cannot open the log file " + directory.file("none/lda.log") +
            ": No such file or directory. Create its folder, or change log_dir in the platform "
            "file.\n");
    EXPECT_EQ(platform.log.lines(),
              Lines{"LOG-3-OPEN: Cannot open log file " + directory.file("none/lda.log") +
                    ": No such file or directory"});
    // A later attempt may succeed.
    platform.settings.log_dir = directory.path();
    EXPECT_NE(qv_zlog_init("lda"), nullptr);
}

TEST_F(ZlogTest, NamesThatTheLibraryWouldMisreadAreRefused) {
    EXPECT_EQ(qv_zlog_init(nullptr), nullptr);
    platform.settings.log_dir = directory.path();
    for (const char* const name : {"a b", "a\"b", "%d", "a$b", "a\nb", "a\x7f", "", "../lda"}) {
        EXPECT_EQ(qv_zlog_init(name), nullptr) << name;
        EXPECT_EQ(platform.log.lines().back(), "LOG-3-OPEN: Cannot open log file " +
                                                   visible(directory.file(name), kLinesAndTabs) +
                                                   ".log: the name has a character that is not "
                                                   "allowed");
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(ZlogTest, FoldersThatTheLibraryWouldMisreadAreRefused) {
    for (const char* const name : {"a b", "a\"b", "%d", "a$b", "a\nb", "a\x7f"}) {
        platform.settings.log_dir = directory.file(name);
        std::filesystem::create_directory(platform.settings.log_dir);
        EXPECT_EQ(qv_zlog_init("lda"), nullptr) << name;
        EXPECT_TRUE(std::filesystem::is_empty(platform.settings.log_dir)) << name;
    }
    platform.settings.log_dir = directory.path();
    std::filesystem::create_directory(directory.file("sub"));
    EXPECT_EQ(qv_zlog_init("sub/lda"), nullptr) << "the folder is named in one place only";
    EXPECT_TRUE(std::filesystem::is_empty(directory.file("sub")));
}

TEST_F(ZlogTest, FileOfAnEarlierRunIsContinued) {
    directory.write("lda.log", "2026-01-31 23:59:59.123 INFO before\n");
    platform.settings.log_dir = directory.path();
    qv_zlog_category* const category = qv_zlog_init("lda");
    qvdf_zlog(category, "f", "g", 1, QV_ZLOG_INFO, "after");
    EXPECT_EQ(lines(), (Lines{"INFO before", "INFO after"}));
}

TEST_F(ZlogTest, LinksAndPipesInPlaceOfItsFilesAreRefused) {
    platform.settings.log_dir = directory.path();
    const std::string outside = directory.file("outside");
    for (const std::string& file : {directory.file("lda.log"), directory.file(".lda.lock")}) {
        std::filesystem::create_symlink(outside, file);
        EXPECT_EQ(qv_zlog_init("lda"), nullptr);
        EXPECT_EQ(platform.log.lines().back(),
                  "LOG-3-OPEN: Cannot open log file " + file + ": it is a symbolic link");
        EXPECT_FALSE(std::filesystem::exists(outside));
        std::filesystem::remove(file);
        ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        EXPECT_EQ(qv_zlog_init("lda"), nullptr);
        std::filesystem::remove(file);
    }
    EXPECT_NE(qv_zlog_init("lda"), nullptr);
}

TEST_F(ZlogTest, FileIsForItsOwnerOnly) {
    using std::filesystem::perms;
    umask(0);
    platform.settings.log_dir = directory.path();
    ASSERT_NE(qv_zlog_init("lda"), nullptr);
    EXPECT_EQ(std::filesystem::status(directory.file("lda.log")).permissions(),
              perms::owner_read | perms::owner_write);
}

TEST_F(ZlogTest, LibraryThatRefusesThePathIsAnErrorWithItsReason) {
    platform.settings.log_dir = directory.path();
    for (int i = 0; i < 5; ++i) {
        platform.settings.log_dir += "/" + std::string(250, 'x');  // 1250 bytes are too long for it
    }
    std::filesystem::create_directories(platform.settings.log_dir);
    EXPECT_EQ(qv_zlog_init("lda"), nullptr);
    EXPECT_EQ(platform.log.lines(),
              Lines{"LOG-3-OPEN: Cannot open log file " + platform.settings.log_dir +
                    "/lda.log: the log library refused its configuration"});
}

TEST_F(ZlogTest, StartLeavesNoDescriptorOpenThatItDoesNotNeed) {
    platform.settings.log_dir = directory.path();
    ASSERT_NE(qv_zlog_init("lda"), nullptr);
    Lines open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry, gone).string();
        if (target.starts_with(directory.path()) || target.starts_with("/memfd:")) {
            open.push_back(target);
        }
    }
    EXPECT_EQ(open, Lines{});
}

TEST_F(ZlogTest, FilesRotateAndOnlyAFewAreKept) {
    platform.settings.log_dir = directory.path();
    qv_zlog_category* const category = qv_zlog_init("lda");
    const std::string text(1000, 'x');
    for (int i = 0; i < 8000; ++i) {  // 8 MB
        qvdf_zlog(category, "f", "g", 1, QV_ZLOG_INFO, text.c_str());
    }
    uintmax_t bytes = 0;
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
        if (entry.path().extension() == ".log") {
            ++files;
            bytes += entry.file_size();
        }
    }
    EXPECT_TRUE(std::filesystem::exists(directory.file(".lda.lock")));
    EXPECT_EQ(files, 5u);
    EXPECT_LE(bytes, 5u << 20);
}

TEST_F(ZlogTest, ThreadsWriteWholeLines) {
    platform.settings.log_dir = directory.path();
    qv_zlog_category* const category = qv_zlog_init("lda");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([category] {
            for (int i = 0; i < 100; ++i) {
                qvdf_zlog(category, "f", "g", 1, QV_ZLOG_INFO, "a whole line");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lines(), Lines(400, "INFO a whole line"));
}

}  // namespace
}  // namespace qv
