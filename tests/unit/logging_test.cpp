#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

// The fixed-width date of the main logger's lines.
const std::string kDate = "[0-9]{2}\\.[0-9]{2}\\. [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

class Logging : public ::testing::Test {
protected:
    void SetUp() override {
        UsePrivateTmp();
        QVK_Framework_Project_Name = "Launcher";
        QVK_Framework_BuildID_App = nullptr;
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) std::filesystem::remove_all(entry);
        WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    }
    static std::vector<std::string> Log(pid_t pid, const std::string& suffix = "") {
        return Lines(ReadFile("/tmp/Quorvik.Log." + std::to_string(pid) + suffix));
    }
    TempDir home_;
    FakeHome fakeHome_{home_.path()};
    platform::Replace<platform::Home> useHome_{fakeHome_};
    FakeGestalt gestalt_{0x1058};
    platform::Replace<platform::Gestalt> useGestalt_{gestalt_};
};

TEST_F(Logging, EachTypeHasItsLineInTheCombinedFileAndTheSplitFilesTakeTheShortLine) {
    pid_t pid = RunInChild([] {
        QVK_Framework_Log_Internal("f1", "Src", 1, 1, "modem %d", 7);
        QVK_Framework_Log_Internal("f6", "Src", 6, 6, "paired");
        QVK_Framework_Log_Internal("fnull", "Src", 2, 2, nullptr);
        QVK_Framework_Log_Internal("fnl", "Src", 3, 5, "a\nb");
        QVK_Framework_Log_Internal("f12", "Src", 12, 12, "twelve");
        QVK_Framework_Log_Internal("fneg", "Src", 13, -1, "negative");
        QVK_Framework_Log_Internal("fbad", "Src", 14, 5, "\xff%s", "x");
    });
    const std::string line = "Unknown: " + kDate + ": Src:";
    EXPECT_THAT(Log(pid), ElementsAre("Project Launcher Build (null)", "", "System version 00001058", "",
                                      MatchesRegex(line + "1\\(Modem\\): f1: modem 7"), "BT: paired",
                                      MatchesRegex(line + "2\\(Errors\\): fnull"),
                                      MatchesRegex(line + "3\\(Trace\\): fnl: a\\\\nb"),
                                      MatchesRegex(line + "12\\(Invalid\\): f12: twelve"),
                                      MatchesRegex(line + "13\\(Invalid\\): fneg: negative"),
                                      MatchesRegex(line + "14\\(Trace\\): fbad: Error while making log message")));
    EXPECT_FALSE(std::filesystem::exists("/tmp/Quorvik.Log." + std::to_string(pid) + ".Trace"));

    WriteFile("/tmp/Quorvik-PleaseDoLog-Split", "");
    pid = RunInChild([] {
        QVK_Framework_Log_Internal("main", "Main", 68, 5, "Found --qvk-uninstall");
        QVK_Framework_Log_Internal("f1", "Src", 1, 1, "modem");
        QVK_Framework_Log_Internal("f2", "Src", 2, 2, nullptr);
    });
    EXPECT_THAT(Log(pid, ".Trace"),
                ElementsAre("Project Launcher Build (null)", "", "System version 00001058", "",
                            MatchesRegex("Unknown " + kDate + " Main 68 main: Found --qvk-uninstall")));
    EXPECT_THAT(Log(pid, ".Modem").back(), MatchesRegex(kDate + " modem"));
    EXPECT_THAT(Log(pid, ".Errors").back(), MatchesRegex("Unknown " + kDate + " Src 2 f2:"));
    EXPECT_EQ(Log(pid).size(), 7u);
}

TEST_F(Logging, PlantedLinksHardLinksAndAnotherUsersFileAreNotWrittenThrough) {
    std::string victim = home_.path() + "/victim";
    WriteFile(victim, "keep");
    // Each child plants a link at its own log file's name before it logs.
    for (auto plant : {&symlink, &link}) {
        RunInChild([&] {
            ASSERT_EQ(plant(victim.c_str(), ("/tmp/Quorvik.Log." + std::to_string(getpid())).c_str()), 0);
            QVK_Framework_Log_Internal("main", "Main", 68, 5, "x");
        });
    }
    EXPECT_EQ(ReadFile(victim), "keep");
    RunInChild([] {
        std::string name = "/tmp/Quorvik.Log." + std::to_string(getpid());
        WriteFile(name, "theirs");
        ASSERT_EQ(chown(name.c_str(), 65534, 65534), 0);
        QVK_Framework_Log_Internal("main", "Main", 68, 5, "x");
        EXPECT_EQ(ReadFile(name), "theirs");
    });
}

}  // namespace
}  // namespace qvk::test
