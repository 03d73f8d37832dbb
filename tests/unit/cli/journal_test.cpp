// The journal: what is read back after a crash at any byte.
#include "platform/cli/journal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/cli/cli_rig.h"

namespace {

using qv::cli::ConfigSection;
using qv::cli::Journal;
using qv::cli::read_journal;
using qv::test::read_text;
using qv::test::write_text;

ConfigSection section(const std::string& port, std::vector<std::string> lines) {
    ConfigSection made;
    made.port = port;
    for (std::string& line : lines) {
        made.lines.push_back({0, std::move(line)});
    }
    return made;
}

// "NUMBER PORT: LINE, LINE" for each record, preceded by "(saved)" for a saved one.
std::vector<std::string> contents(const std::string& path) {
    std::vector<std::string> texts;
    for (const auto& [number, section, saved] : read_journal(path)) {
        std::string text =
            (saved ? "(saved) " : "") + std::to_string(number) + " " + section.port + ":";
        for (const auto& line : section.lines) {
            text += " " + line.text + ",";
        }
        texts.push_back(text);
    }
    return texts;
}

using Contents = std::vector<std::string>;

struct JournalTest : testing::Test {
    const qv::test::TestFolder folder;
    const std::string path = folder.file("startup.journal");
    Journal journal{path};

    // Differs when the file was created again.
    ino_t file_number() const {
        struct stat status {};
        ::stat(path.c_str(), &status);
        return status.st_ino;
    }
};

TEST_F(JournalTest, RecordsAreReadAsTheyWereWritten) {
    EXPECT_EQ(journal.open(0), "");
    EXPECT_EQ(journal.append(section("", {"loop-detect enable", "tarn enable"})), "");
    EXPECT_EQ(journal.append(section("swp3", {"shutdown", "loop-detect apply shutdown-port"})), "");
    EXPECT_EQ(journal.append(section("swp4", {})), "");
    EXPECT_EQ(journal.last(), 3U);
    EXPECT_EQ(contents(path),
              (Contents{"1 : loop-detect enable, tarn enable,",
                        "2 swp3: shutdown, loop-detect apply shutdown-port,", "3 swp4:"}));
    EXPECT_EQ(read_journal(path)[1].section.lines[0].number, 0);
}

TEST_F(JournalTest, MissingFileHasNoRecords) {
    EXPECT_EQ(contents(folder.file("none")), Contents{});
}

TEST_F(JournalTest, RecordCutOffAnywhereEndsTheReading) {
    journal.open(0);
    journal.append(section("swp1", {"no shutdown"}));
    const std::string first = "1 swp1: no shutdown,";
    const size_t whole = read_text(path).find('\0');
    journal.append(section("swp2", {"shutdown"}));
    const std::string bytes = read_text(path);
    const size_t end = bytes.find('\0');
    ASSERT_GT(end, whole);
    for (size_t length = whole; length < end; ++length) {
        write_text(path, bytes.substr(0, length));
        EXPECT_EQ(contents(path), Contents{first}) << length;
    }
    write_text(path, bytes.substr(0, end));
    EXPECT_EQ(contents(path), (Contents{first, "2 swp2: shutdown,"}));
}

TEST_F(JournalTest, DamagedByteEndsTheReading) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    const std::string bytes = read_text(path);
    for (size_t at = 0; at < bytes.find('\0'); ++at) {
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        write_text(path, damaged);
        EXPECT_EQ(contents(path), Contents{}) << at;
    }
}

TEST_F(JournalTest, DroppedRecordsAreGoneAndNumbersContinue) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    journal.append(section("swp2", {"shutdown"}));
    journal.forget(2);
    EXPECT_EQ(contents(path), Contents{});
    journal.append(section("swp3", {"shutdown"}));
    EXPECT_EQ(contents(path), Contents{"3 swp3: shutdown,"}) << "what lies behind it is old";
}

TEST_F(JournalTest, RecordsAfterTheForgottenOnesStay) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    journal.append(section("swp2", {"shutdown"}));
    journal.forget(1);
    EXPECT_EQ(contents(path).back(), "2 swp2: shutdown,");
    EXPECT_FALSE(journal.holds("swp1"));
    EXPECT_TRUE(journal.holds("swp2"));
}

TEST_F(JournalTest, SectionsOfHeldPortsStayWhenTheyAreSaved) {
    const ConfigSection held1 = section("swp1", {"shutdown", "loop-detect apply shutdown-port"});
    const ConfigSection held2 = section("swp2", {"shutdown", "loop-detect apply shutdown-port"});
    const std::string lines = " shutdown, loop-detect apply shutdown-port,";
    journal.open(0);
    journal.append(held1);
    journal.append(section("swp3", {"shutdown"}));
    journal.forget(2, {held1, held2});
    EXPECT_EQ(contents(path), (Contents{"(saved) 2 swp1:" + lines, "(saved) 2 swp2:" + lines}));
    EXPECT_FALSE(journal.holds("swp1")) << "it is in the saved configuration";
    journal.append(section("swp1", {"no shutdown"}));
    EXPECT_EQ(contents(path), (Contents{"(saved) 2 swp1:" + lines, "(saved) 2 swp2:" + lines,
                                        "3 swp1: no shutdown,"}));
    journal.forget(3, {held2});
    EXPECT_EQ(contents(path), Contents{"(saved) 3 swp2:" + lines});
    journal.forget(3);
    EXPECT_EQ(contents(path), Contents{});
}

TEST_F(JournalTest, SavedRecordsStayUntilTheNextSaveAfterAStart) {
    const ConfigSection held = section("swp1", {"shutdown", "loop-detect apply shutdown-port"});
    journal.open(0);
    journal.append(held);
    journal.forget(1, {held});
    Journal next(path);
    EXPECT_EQ(next.open(1), "");
    const Contents as_before{"(saved) 1 swp1: shutdown, loop-detect apply shutdown-port,"};
    EXPECT_EQ(contents(path), as_before);
    next.append(section("swp2", {"shutdown"}));
    EXPECT_EQ(contents(path), (Contents{as_before[0], "2 swp2: shutdown,"}));
    next.forget(2);
    EXPECT_EQ(contents(path), Contents{});
}

TEST_F(JournalTest, FileThatIsMovedAwayIsMadeAgainByTheNextSave) {
    const ConfigSection held = section("swp1", {"shutdown", "loop-detect apply shutdown-port"});
    const Contents record{"(saved) 1 swp1: shutdown, loop-detect apply shutdown-port,"};
    journal.open(0);
    journal.append(held);
    journal.forget(1, {held});
    std::filesystem::rename(path, path + ".moved");
    journal.forget(1, {held});
    EXPECT_EQ(contents(path), record);
    write_text(path + ".other", "something else");
    std::filesystem::rename(path + ".other", path);
    journal.append(section("swp2", {"shutdown"}));
    EXPECT_EQ(journal.reopen_if_replaced(), "");
    EXPECT_EQ(contents(path), (Contents{record[0], "2 swp2: shutdown,"}));
}

TEST_F(JournalTest, ManyHeldPortsDoNotMakeEveryRecordARewrite) {
    std::vector<ConfigSection> held;
    for (int port = 1; port <= 2000; ++port) {
        held.push_back(
            section("swp" + std::to_string(port), {"shutdown", "loop-detect apply shutdown-port"}));
    }
    journal.open(0);
    journal.forget(0, held);
    ASSERT_GT(read_text(path).find('\0'), 128U << 10);
    const ino_t before = file_number();
    for (int record = 0; record < 100; ++record) {
        journal.append(section("swp2", {"no shutdown"}));
    }
    EXPECT_EQ(file_number(), before);
    EXPECT_EQ(contents(path).size(), 2100U);
}

// A crash could break off a write of several pages, and with it the records that nothing else has.
TEST_F(JournalTest, RecordsOfMoreThanAPageAreWrittenBesideTheOldOnes) {
    const ConfigSection held = section("swp1", {"shutdown", "loop-detect apply shutdown-port"});
    journal.open(0);
    journal.append(held);
    const ino_t before = file_number();
    journal.forget(1, {held});
    EXPECT_EQ(file_number(), before) << "a small one is written in one piece";
    journal.forget(1, std::vector<ConfigSection>(60, held));
    EXPECT_NE(file_number(), before);
    EXPECT_EQ(contents(path).size(), 60U);
}

TEST_F(JournalTest, StartOnAFullDiskContinuesInTheOldFile) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    // Prevents a new file beside it.
    std::filesystem::create_directory(path + ".new");
    Journal next(path);
    EXPECT_EQ(next.open(0), "");
    EXPECT_EQ(next.append(section("swp2", {"shutdown"})), "");
    EXPECT_EQ(contents(path), (Contents{"1 swp1: shutdown,", "2 swp2: shutdown,"}));
}

TEST_F(JournalTest, ReopenedJournalContinuesWithItsRecords) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    Journal next(path);
    EXPECT_EQ(next.open(0), "");
    EXPECT_EQ(next.append(section("swp2", {"shutdown"})), "");
    EXPECT_EQ(contents(path), (Contents{"1 swp1: shutdown,", "2 swp2: shutdown,"}));
}

TEST_F(JournalTest, NumbersContinueAfterThoseOfTheSavedConfiguration) {
    EXPECT_EQ(journal.open(41), "");
    journal.append(section("swp1", {"shutdown"}));
    EXPECT_EQ(contents(path), Contents{"42 swp1: shutdown,"});
}

TEST_F(JournalTest, FileStaysSmallHoweverOftenAPortIsShut) {
    journal.open(0);
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(journal.append(section("swp1", {"shutdown"})), "");
        ASSERT_EQ(journal.append(section("swp2", {"shutdown"})), "");
    }
    EXPECT_LT(std::filesystem::file_size(path), 80U << 10);
    EXPECT_EQ(contents(path).back(), "40000 swp2: shutdown,");
    EXPECT_EQ(contents(path).rbegin()[1], "39999 swp1: shutdown,");
}

TEST_F(JournalTest, ManyPortsShutAtOnceDoNotRewriteTheFileForEach) {
    journal.open(0);
    int rewrites = 0;
    ino_t file = 0;
    for (int i = 0; i < 4096; ++i) {
        ASSERT_EQ(journal.append(section("swp" + std::to_string(i), {"shutdown"})), "");
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        rewrites += file != 0 && status.st_ino != file ? 1 : 0;
        file = status.st_ino;
    }
    EXPECT_LE(rewrites, 4);
    EXPECT_EQ(read_journal(path).size(), 4096U);
}

TEST_F(JournalTest, RoomIsLaidOutSoThatAFullDiskKeepsNoRecordOut) {
    journal.open(0);
    ASSERT_EQ(std::filesystem::file_size(path), 64U << 10);
    {
        const qv::test::FullDisk full(64 << 10);
        EXPECT_EQ(journal.append(section("swp1", {"shutdown"})), "");
    }
    {
        const qv::test::FullDisk full(10);
        EXPECT_EQ(journal.append(section("swp2", {"shutdown"})), "File too large");
    }
    EXPECT_EQ(journal.append(section("swp3", {"shutdown"})), "");
    EXPECT_EQ(contents(path), (Contents{"1 swp1: shutdown,", "2 swp3: shutdown,"}))
        << "a record that was refused takes no number";
}

TEST_F(JournalTest, FolderThatIsNotThereIsATroubleUntilItIs) {
    Journal lost(folder.file("none/startup.journal"));
    EXPECT_EQ(lost.open(0), "No such file or directory");
    EXPECT_EQ(lost.append(section("swp1", {"shutdown"})), "No such file or directory");
    std::filesystem::create_directory(folder.file("none"));
    EXPECT_EQ(lost.append(section("swp1", {"shutdown"})), "");
    EXPECT_EQ(contents(lost.path()), Contents{"1 swp1: shutdown,"});
}

TEST_F(JournalTest, RemovedFileIsCreatedAgainWithAllUnsavedRecords) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    std::filesystem::remove(path);
    EXPECT_EQ(journal.append(section("swp2", {"shutdown"})), "");
    EXPECT_EQ(journal.reopen_if_replaced(), "");
    EXPECT_EQ(contents(path), (Contents{"1 swp1: shutdown,", "2 swp2: shutdown,"}));
}

TEST_F(JournalTest, FileThatIsMadeAgainHasTheNewestRecordOfASectionAlone) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    journal.append(section("swp1", {"no shutdown"}));
    std::filesystem::remove(path);
    EXPECT_EQ(journal.append(section("swp2", {"shutdown"})), "");
    EXPECT_EQ(journal.reopen_if_replaced(), "");
    EXPECT_EQ(contents(path), (Contents{"2 swp1: no shutdown,", "3 swp2: shutdown,"}));
}

TEST_F(JournalTest, FileIsItsOwnersAlone) {
    journal.open(0);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

// ---- Files in a form that this program does not write ----

std::string record(const std::string& number, const std::string& size, const std::string& body) {
    return "record " + number + " " + size + " " + qv::cli::checksum(number + body) + "\n" + body;
}

TEST_F(JournalTest, NumbersThatAreNoneEndTheReading) {
    const std::string body = "interface swp1\n shutdown\n";
    const std::string size = std::to_string(body.size());
    write_text(path, record("1", size, body));
    ASSERT_EQ(contents(path), Contents{"1 swp1: shutdown,"});
    EXPECT_EQ(read_journal(path)[0].section.number, 0);
    for (const std::string& bytes :
         {record("1x", size, body), record("", size, body), record("1", size + "x", body),
          record("1", "999", body), record("1", "", body), record("-1", size, body),
          record("0", size, body)}) {
        write_text(path, bytes);
        EXPECT_EQ(contents(path), Contents{}) << bytes;
    }
}

TEST_F(JournalTest, NumberThatDoesNotGrowEndsTheReading) {
    const std::string first = record("2", "9", "shutdown\n");
    const std::string again = record("2", "12", "no shutdown\n");
    const std::string older = record("1", "12", "no shutdown\n");
    for (const std::string& second : {again, older}) {
        write_text(path, first + second);
        EXPECT_EQ(contents(path), Contents{"2 : shutdown,"});
    }
}

TEST_F(JournalTest, ReopenedJournalHasTheContentOfTheFile) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    std::filesystem::remove(path);
    EXPECT_EQ(journal.open(7), "");
    EXPECT_FALSE(journal.holds("swp1"));
    EXPECT_EQ(contents(path), Contents{});
    EXPECT_EQ(journal.last(), 7U);
}

TEST_F(JournalTest, LinkToTheFileIsReplacedByAFile) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    std::filesystem::rename(path, path + ".moved");
    std::filesystem::create_symlink(path + ".moved", path);
    EXPECT_EQ(journal.reopen_if_replaced(), "");
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    EXPECT_EQ(journal.append(section("swp2", {"shutdown"})), "");
    EXPECT_EQ(contents(path), (Contents{"1 swp1: shutdown,", "2 swp2: shutdown,"}));
    EXPECT_EQ(contents(path + ".moved"), Contents{"1 swp1: shutdown,"});
}

TEST_F(JournalTest, RecordThatFitsInPartIsNotWritten) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    const size_t end = read_text(path).find('\0');
    {
        const qv::test::FullDisk full(end + 5);
        EXPECT_EQ(journal.append(section("swp2", {"shutdown"})), "No space left on device");
        EXPECT_EQ(journal.last(), 1U);
        EXPECT_FALSE(journal.holds("swp2"));
    }
    EXPECT_EQ(journal.append(section("swp3", {"shutdown"})), "");
    EXPECT_EQ(contents(path), (Contents{"1 swp1: shutdown,", "2 swp3: shutdown,"}));
}

TEST_F(JournalTest, EarlierSaveThatEndsLaterDropsHeldPortsOfTheOtherOne) {
    const ConfigSection held = section("swp1", {"shutdown", "loop-detect apply shutdown-port"});
    journal.open(0);
    journal.append(held);
    journal.append(section("swp2", {"shutdown"}));
    journal.forget(2, {held});
    journal.forget(1);
    EXPECT_EQ(contents(path), Contents{});
}

TEST_F(JournalTest, SaveThatChangesNothingLeavesTheFileAlone) {
    std::vector<ConfigSection> held;
    for (int port = 1; port <= 60; ++port) {
        held.push_back(
            section("swp" + std::to_string(port), {"shutdown", "loop-detect apply shutdown-port"}));
    }
    journal.open(0);
    journal.forget(0, held);
    const ino_t before = file_number();
    journal.forget(0, held);
    EXPECT_EQ(file_number(), before);
}

TEST_F(JournalTest, LeftoverOfADeadProcessIsReplaced) {
    write_text(path + ".new", "left");
    EXPECT_EQ(journal.open(0), "");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

// A folder with the new file's name prevents a new file, so only a file of our own may be
// overwritten.
TEST_F(JournalTest, FileOfAnotherUserIsNotOverwritten) {
    std::filesystem::create_directory(path + ".new");
    const std::string precious = folder.file("precious");
    write_text(precious, "precious");
    std::filesystem::create_symlink(precious, path);
    EXPECT_EQ(journal.open(0), "File exists");
    EXPECT_EQ(read_text(precious), "precious");
    if (::geteuid() == 0) {
        std::filesystem::remove(path);
        write_text(path, "theirs");
        ASSERT_EQ(::chown(path.c_str(), 12, 34), 0);
        EXPECT_EQ(journal.open(0), "File exists");
        EXPECT_EQ(read_text(path), "theirs");
    }
}

TEST_F(JournalTest, FileThatCannotBeWrittenToItsEndIsNotPutInPlace) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    std::filesystem::remove(path);
    const qv::test::FullDisk full(10);
    EXPECT_EQ(journal.reopen_if_replaced(), "No space left on device");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST_F(JournalTest, FolderInItsPlaceLeavesNothingBeside) {
    std::filesystem::create_directory(path);
    EXPECT_EQ(journal.open(0), "Is a directory");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST_F(JournalTest, ContinuesInItsFileOnceThatIsBack) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    journal.append(section("swp1", {"no shutdown"}));
    std::filesystem::rename(path, path + ".moved");
    std::filesystem::create_directory(path);
    EXPECT_EQ(journal.reopen_if_replaced(), "Is a directory");
    std::filesystem::remove(path);
    std::filesystem::rename(path + ".moved", path);
    EXPECT_EQ(journal.append(section("swp3", {"shutdown"})), "");
    EXPECT_EQ(journal.reopen_if_replaced(), "");
    EXPECT_EQ(contents(path),
              (Contents{"1 swp1: shutdown,", "2 swp1: no shutdown,", "3 swp3: shutdown,"}));
}

TEST_F(JournalTest, PipeInItsPlaceIsNotWrittenTo) {
    std::filesystem::create_directory(path + ".new");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(journal.open(0), "File exists");
    EXPECT_EQ(journal.append(section("swp1", {"shutdown"})), "File exists");
    ::close(reader);
}

TEST_F(JournalTest, OldFileThatIsContinuedHasItsRoomStill) {
    journal.open(0);
    journal.append(section("swp1", {"shutdown"}));
    const ino_t before = file_number();
    std::filesystem::create_directory(path + ".new");
    Journal next(path);
    EXPECT_EQ(next.open(0), "");
    std::filesystem::remove(path + ".new");
    EXPECT_EQ(next.append(section("swp2", {"shutdown"})), "");
    EXPECT_EQ(file_number(), before);
}

}  // namespace
