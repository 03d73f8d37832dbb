#include "qv/zlog.h"

#include <thread>

#include <gtest/gtest.h>

#include "tests/support/test_platform.h"
#include "tests/unit/services/temporary_directory.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

// The library is initialised once in a process, so each of these runs in a process of its own.
struct ZlogTest : testing::Test {
    test::TestPlatform platform;
    test::TemporaryDirectory directory;

    // The lines without the time in front of them.
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
    for (const char* const name : {"a b", "a\"b", "%d", "a\nb", ""}) {
        platform.settings.log_dir = directory.path();
        EXPECT_EQ(qv_zlog_init(name), nullptr) << name;
        platform.settings.log_dir = directory.file(name) + "\x7f";
        EXPECT_EQ(qv_zlog_init("lda"), nullptr) << name;
    }
    platform.settings.log_dir = directory.path();
    EXPECT_EQ(qv_zlog_init("../lda"), nullptr);
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
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
