// Saves that overlap: changes while ports are read or while the file is written.
#include "platform/cli/config_saver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_file.h"
#include "qv/cli.h"
#include "qv/lsm.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using namespace std::chrono_literals;
using qv::test::read_text;
using qv::test::write_text;
using Lines = std::vector<std::string>;

const std::string kPorts =
    "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n";

// Keeps its work until a test runs it.
class HeldBackground final : public qv::Background {
 public:
    explicit HeldBackground(qv::EventLoop& loop) : loop_(loop) {}
    void run(std::function<void()> work, qv::EventLoop::Task done) override {
        ++runs;
        jobs_.push_back([this, work = std::move(work), done = std::move(done)] {
            work();
            loop_.post(done);
        });
        if (!hold) {
            finish();
        }
    }
    void finish() {
        ASSERT_FALSE(jobs_.empty());
        const auto job = std::move(jobs_.front());
        jobs_.pop_front();
        job();
    }
    bool hold = true;
    int runs = 0;

 private:
    qv::EventLoop& loop_;
    std::deque<std::function<void()>> jobs_;
};

int g_globals = 0;                         // how often global lines were generated
std::function<void(uint64_t ifx)> g_port;  // called for each port whose lines are generated

class ConfigSaverTest : public ::testing::Test {
 protected:
    ConfigSaverTest() {
        using namespace qv::cli;
        const auto nothing = [](cli_pcdb*) {
            return 0;
        };
        const auto count = [](cli_pcdb*) {
            if (++g_globals > 1000) {
                throw std::runtime_error("saves without end");
            }
            return 0;
        };
        const auto visit = [](cli_pcdb* pcdb) {
            if (g_port) {
                g_port(pcdb->ifx);
            }
            return 0;
        };
        attach(CLI_CHAIN_CONFIG, keyword("counted", "", print_config(count, end_of_line(nothing))),
               "test");
        attach(CLI_CHAIN_INTERFACE,
               keyword("visited", "", print_config(visit, end_of_line(nothing))), "test");
        g_globals = 0;
        g_port = nullptr;
    }
    void configure(const std::string& line) {
        rig.session.mode = "config";
        EXPECT_EQ(rig.type(line), "");
    }
    void add_ports(uint32_t count) {
        for (uint32_t ifx = 1000; ifx < 1000 + count; ++ifx) {
            rig.hardware.add("eth" + std::to_string(ifx), ifx);
        }
    }
    void finish() {
        background.finish();
        rig.platform.run_ready();
    }
    std::string saved_text() const {
        const auto config = qv::cli::unseal_config(read_text(path));
        return config.intact ? config.text : "not valid";
    }
    qv::cli::ConfigSaver::Done answer(const std::string& who) {
        return [this, who](const std::string& reason) {
            answers.push_back(who + reason);
        };
    }

    qv::test::CliRig rig;  // its own configuration is never applied, so that it saves nothing
    const std::string path = rig.folder.file("disk/direct.conf");
    const bool made = std::filesystem::create_directory(rig.folder.file("disk"));
    qv::cli::Journal journal{path + ".journal"};
    qv::cli::PortSections sections;
    HeldBackground background{rig.platform.loop()};
    qv::cli::ConfigSaver saver{rig.platform.loop(), background, path, journal, sections};
    Lines answers;
};

TEST_F(ConfigSaverTest, ChangeWhileTheFileIsWrittenIsSavedNext) {
    saver.allow_autosave(true);
    saver.request();
    rig.platform.run_for(100ms);
    EXPECT_EQ(background.runs, 1);
    configure("tarn enable");
    saver.request();
    rig.platform.run_for(10s);
    EXPECT_EQ(background.runs, 1) << "one save at a time";
    finish();
    EXPECT_EQ(saved_text(), kPorts + "end\n");
    rig.platform.run_for(100ms);
    EXPECT_EQ(background.runs, 2);
    finish();
    EXPECT_EQ(saved_text(), "tarn enable\n" + kPorts + "end\n");
    rig.platform.run_for(10s);
    EXPECT_EQ(background.runs, 2);
    EXPECT_EQ(g_globals, 2);
}

TEST_F(ConfigSaverTest, SavesRequestedMeanwhileAreAnsweredByOneMore) {
    saver.save(answer("first"));
    saver.save(answer("second"));
    saver.save(answer("third"));
    EXPECT_EQ(saver.save_here(), "another save is under way");
    EXPECT_EQ(answers, Lines{});
    finish();
    EXPECT_EQ(answers, Lines{"first"});
    finish();
    std::sort(answers.begin(), answers.end());
    EXPECT_EQ(answers, (Lines{"first", "second", "third"}));
    EXPECT_EQ(background.runs, 2);
}

TEST_F(ConfigSaverTest, RequestedSaveReplacesTheDueOne) {
    saver.allow_autosave(true);
    background.hold = false;
    saver.request();
    saver.save(answer(""));
    rig.platform.run_for(10s);
    EXPECT_EQ(g_globals, 1);
}

TEST_F(ConfigSaverTest, SaveRequestedBetweenTwoSlicesTakesEveryPortAgain) {
    saver.allow_autosave(true);
    background.hold = false;
    add_ports(100);
    g_port = [&](uint64_t ifx) {
        if (ifx == 104) {
            g_port = nullptr;
            // Runs after the first slice, which has begun, and before the second.
            rig.platform.loop().post([&] {
                rig.hardware.set_admin(101, false);
                sections.set_shut_by(101, qv::cli::ShutBy::kOperator);
                saver.save([&](const std::string&) { answers.push_back(saved_text()); });
            });
        }
    };
    saver.request();
    rig.platform.run_for(10s);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_TRUE(answers[0].starts_with("interface swp1\n shutdown\n!\n")) << answers[0];
    EXPECT_EQ(g_globals, 2) << "nothing is left of the first one";
}

TEST_F(ConfigSaverTest, PortWithAnIndexThatHadItsTurnIsTakenAtTheEnd) {
    saver.allow_autosave(true);
    background.hold = false;
    add_ports(100);
    g_port = [&](uint64_t ifx) {
        if (ifx == 104) {
            g_port = nullptr;
            rig.platform.loop().post([&] { rig.hardware.add("late", 50); });
        }
    };
    saver.request();
    rig.platform.run_for(100ms);
    EXPECT_EQ(g_globals, 1);
    EXPECT_TRUE(saved_text().ends_with("interface eth1099\n!\ninterface late\n!\nend\n"));
}

TEST_F(ConfigSaverTest, PauseCountsEverySlice) {
    saver.allow_autosave(true);
    background.hold = false;
    add_ports(128);
    g_port = [&](uint64_t) {
        rig.platform.manual_clock.advance(250us);
    };
    saver.request();
    rig.platform.run_for(100ms);  // 132 ports in three slices take 33 ms
    EXPECT_EQ(g_globals, 1);
    saver.request();
    rig.platform.run_for(300ms);
    EXPECT_EQ(g_globals, 1);
    rig.platform.run_for(30ms);
    EXPECT_EQ(g_globals, 2);
}

TEST_F(ConfigSaverTest, HiddenPortHasNoSection) {
    qv::Port port = *rig.model.find(102U);
    port.flags |= LSM_IF_FLAG_HIDDEN;
    rig.model.port_changed(port);
    EXPECT_EQ(saver.save_here(), "");
    EXPECT_EQ(saved_text(), "interface swp1\n!\ninterface swp3\n!\ninterface swp4\n!\nend\n");
}

TEST_F(ConfigSaverTest, RequestedSaveWritesEvenAnUnchangedConfiguration) {
    background.hold = false;
    saver.save(answer("first"));
    rig.platform.run_ready();
    write_text(path, "by hand");
    saver.save(answer("second"));
    rig.platform.run_ready();
    EXPECT_EQ(saved_text(), kPorts + "end\n");
    EXPECT_EQ(answers, (Lines{"first", "second"}));
}

TEST_F(ConfigSaverTest, NothingIsSavedBeforeTheFirstRequestedSave) {
    background.hold = false;
    saver.request();
    saver.save_last();
    rig.platform.run_for(10s);
    EXPECT_FALSE(std::filesystem::exists(path));
    saver.save(answer("saved"));
    rig.platform.run_ready();
    configure("tarn enable");
    saver.request();
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), "tarn enable\n" + kPorts + "end\n");
}

TEST_F(ConfigSaverTest, ChangeWhileTheFirstSaveIsWrittenIsSavedOnceThatHasSucceeded) {
    saver.save(answer("saved"));
    configure("tarn enable");
    saver.request();
    finish();
    EXPECT_EQ(answers, Lines{"saved"});
    background.hold = false;
    rig.platform.run_for(1s);
    EXPECT_EQ(saved_text(), "tarn enable\n" + kPorts + "end\n");
}

TEST_F(ConfigSaverTest, ChangeWhileTheFirstSaveIsWrittenWaitsForTheNextOneWhenThatFails) {
    std::filesystem::create_directory(path + ".new");
    saver.save(answer(""));
    configure("tarn enable");
    saver.request();
    finish();
    EXPECT_EQ(answers, Lines{"File exists"});
    std::filesystem::remove(path + ".new");
    rig.platform.run_for(60s);
    EXPECT_EQ(background.runs, 1);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ConfigSaverTest, WithoutAPathNothingIsSaved) {
    qv::cli::ConfigSaver nowhere(rig.platform.loop(), background, "", journal, sections);
    nowhere.allow_autosave(true);
    nowhere.request();
    rig.platform.run_for(60s);
    EXPECT_EQ(background.runs, 0);
    EXPECT_EQ(g_globals, 0);
}

TEST_F(ConfigSaverTest, RecordsAddedWhileTheFileIsWrittenStay) {
    ASSERT_EQ(journal.open(0), "");
    ASSERT_EQ(journal.append({"swp1", 0, {{0, "shutdown"}}}), "");
    saver.save(answer(""));
    ASSERT_EQ(journal.append({"swp2", 0, {{0, "shutdown"}}}), "");
    finish();
    EXPECT_FALSE(journal.holds("swp1"));
    EXPECT_TRUE(journal.holds("swp2"));
    EXPECT_EQ(qv::cli::unseal_config(read_text(path)).journal, 1U);
}

TEST_F(ConfigSaverTest, FailureIsAnsweredAndNotRetriedOnceASaveHasSucceeded) {
    background.hold = false;
    std::filesystem::remove(rig.folder.file("disk"));
    saver.allow_autosave(true);
    saver.save(answer("first: "));
    rig.platform.run_ready();
    EXPECT_EQ(answers, Lines{"first: No such file or directory"});
    EXPECT_EQ(saver.trouble(), "No such file or directory");
    std::filesystem::create_directory(rig.folder.file("disk"));
    saver.save(answer("second"));
    rig.platform.run_ready();
    EXPECT_EQ(answers.back(), "second");
    EXPECT_EQ(saver.trouble(), "");
    g_globals = 0;
    rig.platform.run_for(60s);
    EXPECT_EQ(g_globals, 0);
}

TEST_F(ConfigSaverTest, FailureIsRetriedAfterHalfAMinute) {
    background.hold = false;
    std::filesystem::remove(rig.folder.file("disk"));
    saver.allow_autosave(true);
    saver.request();
    rig.platform.run_for(100ms);
    std::filesystem::create_directory(rig.folder.file("disk"));
    rig.platform.run_for(30s);
    EXPECT_FALSE(std::filesystem::exists(path));
    rig.platform.run_for(100ms);
    EXPECT_EQ(saved_text(), kPorts + "end\n");
}

// A save that failed may have left either text in the file.
TEST_F(ConfigSaverTest, ChangeTakenBackAfterAFailureIsWrittenAgain) {
    background.hold = false;
    saver.save(answer(""));
    rig.platform.run_ready();
    std::filesystem::create_directory(path + ".new");
    configure("tarn enable");
    saver.request();
    rig.platform.run_for(1s);
    EXPECT_EQ(saver.trouble(), "File exists");
    std::filesystem::remove(path + ".new");
    configure("no tarn enable");
    const int before = background.runs;
    saver.request();
    rig.platform.run_for(1s);
    EXPECT_EQ(background.runs, before + 1);
    EXPECT_EQ(saver.trouble(), "");
}

TEST_F(ConfigSaverTest, FileIsLookedForEveryFiveSeconds) {
    background.hold = false;
    saver.save(answer(""));
    rig.platform.run_for(3s);
    std::filesystem::remove(path);
    rig.platform.run_for(1999ms);
    EXPECT_EQ(rig.platform.log.lines(), Lines{});
    rig.platform.run_for(1ms);
    EXPECT_EQ(rig.platform.log.lines(),
              Lines{"CLI-4-SAVE: " + path + " was removed; the configuration is saved again."});
    rig.platform.run_for(100ms);
    EXPECT_EQ(saved_text(), kPorts + "end\n");
}

TEST_F(ConfigSaverTest, FolderThatIsGoneIsReportedOnceWhateverIsInItsPlace) {
    background.hold = false;
    saver.save(answer(""));
    rig.platform.run_ready();
    std::filesystem::remove_all(rig.folder.file("disk"));
    write_text(rig.folder.file("disk"), "no folder");
    rig.platform.run_for(100s);
    EXPECT_EQ(
        rig.platform.log.lines(),
        (Lines{"CLI-4-SAVE: " + path + " was removed; the configuration is saved again.",
               "CLI-3-SAVE: The configuration cannot be saved to " + path + ": Not a directory."}));
}

TEST_F(ConfigSaverTest, GlobalLinesAreSavedWhenTheWholeOfThemIsInTheFile) {
    configure("tarn enable");
    EXPECT_FALSE(saver.saved_global("tarn enable\n"));
    saver.save(answer(""));
    EXPECT_FALSE(saver.saved_global("tarn enable\n")) << "not yet";
    finish();
    EXPECT_TRUE(saver.saved_global("tarn enable\n"));
    EXPECT_FALSE(saver.saved_global("")) << "there are more";
    EXPECT_FALSE(saver.saved_global("tarn enable\ntarn error-recover interval 90\n"));
    saver.save(answer(""));
    EXPECT_FALSE(saver.saved_global("tarn enable\n")) << "either text may be found now";
    finish();
    for (uint32_t ifx = 101; ifx <= 104; ++ifx) {
        rig.hardware.remove(ifx);
    }
    EXPECT_EQ(saver.save_here(), "");
    EXPECT_TRUE(saver.saved_global("tarn enable\n")) << "without any port too";
}

TEST_F(ConfigSaverTest, ChangeBetweenTwoSlicesIsSavedWhenTheFileIsWritten) {
    saver.allow_autosave(true);
    add_ports(100);
    g_port = [&](uint64_t ifx) {
        if (ifx == 104) {
            g_port = nullptr;
            rig.platform.loop().post([&] { saver.request(); });
        }
    };
    saver.request();
    rig.platform.run_for(10s);
    EXPECT_EQ(background.runs, 1);
    EXPECT_EQ(g_globals, 1) << "one save at a time";
    finish();
    rig.platform.run_for(100ms);
    EXPECT_EQ(g_globals, 2);
}

}  // namespace
