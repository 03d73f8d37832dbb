#include "services/tarnd/cut_journal.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace qv::tarnd {
namespace {

using Ports = std::vector<uint32_t>;

struct CutJournalTest : testing::Test {
    CutJournalTest() {
        std::string pattern = testing::TempDir() + "cutsXXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~CutJournalTest() override { std::filesystem::remove_all(folder); }

    std::string folder;
    std::string path() const { return folder + "/cuts"; }
};

TEST_F(CutJournalTest, FullDiskIsAnErrorAndNoCrash) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=16k") != 0) {
        GTEST_SKIP() << "mounting a small disk needs CAP_SYS_ADMIN";
    }
    std::string refusal;
    try {
        const CutJournal journal(path(), "boot");
    } catch (const std::runtime_error& error) {
        refusal = error.what();
    }
    EXPECT_EQ(refusal, path() + ": No space left on device");
    umount(folder.c_str());
}

TEST_F(CutJournalTest, NotesOutliveTheProcess) {
    {
        CutJournal journal(path(), "boot");
        EXPECT_TRUE(journal.note(7));
        EXPECT_TRUE(journal.note(9));
        EXPECT_TRUE(journal.note(7));
        EXPECT_TRUE(journal.note(11));
        journal.clear(9);
    }
    EXPECT_EQ(CutJournal(path(), "boot").noted(), (Ports{7, 11}));
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(CutJournalTest, RenewedNoteOutlivesTheRemovalOfTheOlderOne) {
    CutJournal journal(path(), "boot");
    EXPECT_FALSE(journal.find(7));
    EXPECT_TRUE(journal.renew(7));
    const auto older = journal.find(7);
    ASSERT_TRUE(older);
    EXPECT_TRUE(journal.renew(7));
    journal.clear(*older);
    EXPECT_EQ(journal.noted(), Ports{7});
    journal.clear(7);
    EXPECT_EQ(journal.noted(), Ports{});
}

TEST_F(CutJournalTest, NotesOfAnotherBootAreDropped) {
    CutJournal(path(), "boot").note(7);
    EXPECT_EQ(CutJournal(path(), "next boot").noted(), Ports{});
}

TEST_F(CutJournalTest, AFullJournalRefuses) {
    CutJournal journal(path(), "boot");
    for (uint32_t ifx = 1; ifx <= CutJournal::kSlots; ++ifx) {
        ASSERT_TRUE(journal.note(ifx));
    }
    EXPECT_FALSE(journal.note(5000));
    journal.clear(1);
    EXPECT_TRUE(journal.note(5000));
}

TEST_F(CutJournalTest, AFolderThatIsMissingIsNamed) {
    try {
        CutJournal journal(folder + "/none/cuts", "boot");
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), folder + "/none/cuts: No such file or directory");
    }
}

TEST_F(CutJournalTest, AnOlderNoteKeepsItsValue) {
    CutJournal journal(path(), "boot");
    EXPECT_TRUE(journal.note(3));
    EXPECT_TRUE(journal.note(7, 5));
    journal.clear(3);
    EXPECT_TRUE(journal.note(7, 6));
    EXPECT_TRUE(journal.note(0xfffffffe, 0x1f));
    using Notes = std::vector<CutJournal::Note>;
    EXPECT_EQ(journal.notes(), (Notes{{0xfffffffe, 0x1f}, {7, 5}}));
    journal.clear(7);
    EXPECT_EQ(CutJournal(path(), "boot").notes(), (Notes{{0xfffffffe, 0x1f}}));
}

}  // namespace
}  // namespace qv::tarnd
