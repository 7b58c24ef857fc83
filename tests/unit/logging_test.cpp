#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

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
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) std::filesystem::remove_all(entry);
        WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    }
    // The lines after the four of the header.
    static std::vector<std::string> Log(pid_t pid, const std::string& suffix = "") {
        std::vector<std::string> lines = Lines(ReadFile("/tmp/Quorvik.Log." + std::to_string(pid) + suffix));
        return std::vector<std::string>(lines.begin() + std::min<std::size_t>(4, lines.size()), lines.end());
    }
};

TEST_F(Logging, EachTypeHasItsLineInTheCombinedFileAndTheSplitFilesTakeTheShortLine) {
    pid_t pid = RunInChild([] {
        QVK_Framework_Log_Internal("f1", "Src", 1, 1, "modem %d", 7);
        QVK_Framework_Log_Internal("f6", "Src", 6, 6, "paired");
        QVK_Framework_Log_Internal("fnull", "Src", 2, 2, nullptr);
        QVK_Framework_Log_Internal("fnl", "Src", 3, 5, "a\nb");
        QVK_Framework_Log_Internal("f12", "Src", 12, 12, "twelve");
        QVK_Framework_Log_Internal("fbad", "Src", 14, 5, "\xff%s", "x");
    });
    const std::string line = "Unknown: " + kDate + ": Src:";
    EXPECT_THAT(Log(pid), ElementsAre(MatchesRegex(line + "1\\(Modem\\): f1: modem 7"), "BT: paired",
                                      MatchesRegex(line + "2\\(Errors\\): fnull"),
                                      MatchesRegex(line + "3\\(Trace\\): fnl: a\\\\nb"),
                                      MatchesRegex(line + "12\\(Invalid\\): f12: twelve"),
                                      MatchesRegex(line + "14\\(Trace\\): fbad: Error while making log message")));

    WriteFile("/tmp/Quorvik-PleaseDoLog-Split", "");
    pid = RunInChild([] {
        QVK_Framework_Log_Internal("f1", "Src", 1, 1, "modem");
        QVK_Framework_Log_Internal("f2", "Src", 2, 2, nullptr);
        QVK_Framework_Log_Internal("f32", "Src", 32, 32, "beyond the files");
    });
    EXPECT_THAT(Log(pid, ".Modem"), ElementsAre(MatchesRegex(kDate + " modem")));
    EXPECT_THAT(Log(pid, ".Errors"), ElementsAre(MatchesRegex("Unknown " + kDate + " Src 2 f2:")));
    EXPECT_FALSE(std::filesystem::exists("/tmp/Quorvik.Log." + std::to_string(pid) + ".Invalid"));
}

TEST_F(Logging, PlantedLinksHardLinksAndAnotherUsersFileAreNotWrittenThrough) {
    WriteFile("/tmp/victim", "keep");
    // Each child plants its log file's name before it logs.
    for (auto plant : {&symlink, &link}) {
        RunInChild([&] {
            ASSERT_EQ(plant("/tmp/victim", ("/tmp/Quorvik.Log." + std::to_string(getpid())).c_str()), 0);
            QVK_Framework_Log_Internal("main", "Main", 68, 5, "x");
        });
    }
    EXPECT_EQ(ReadFile("/tmp/victim"), "keep");
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
