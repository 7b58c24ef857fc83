#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <thread>

#include "framework/base/global_mutex.h"
#include "framework/base/identity.h"
#include "framework/log/log.h"
#include "framework/log/logging.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr const char* kDate = "[0-9]{2}\\.[0-9]{2}\\. [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

class Logging : public ::testing::Test {
protected:
    void SetUp() override {
        UsePrivateTmp();
        QVK_Framework_Project_Name = "Launcher";
        QVK_Framework_BuildID_App = nullptr;
        ClearTmp();
    }
    static void ClearTmp() {
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) std::filesystem::remove_all(entry);
    }
    std::string Log(pid_t pid, const std::string& suffix = "") {
        return ReadFile("/tmp/Quorvik.Log." + std::to_string(pid) + suffix);
    }
    TempDir home_;
    FakeHome fakeHome_{home_.path()};
    platform::Replace<platform::Home> useHome_{fakeHome_};
    FakeGestalt gestalt_{0x1058};
    platform::Replace<platform::Gestalt> useGestalt_{gestalt_};
};

void LogSamples() {
    QVK_Framework_Log_Internal("main", "Main", 68, 5, "Found --qvk-uninstall");
    QVK_Framework_Log_Internal("f1", "Src", 1, 1, "modem %d", 7);
    QVK_Framework_Log_Internal("f6", "Src", 6, 6, "paired");
    QVK_Framework_Log_Internal("fnull", "Src", 2, 2, nullptr);
    QVK_Framework_Log_Internal("fnl", "Src", 3, 5, "a\nb");
    QVK_Framework_Log_Internal("f12", "Src", 12, 12, "twelve");
    QVK_Framework_Log_Internal("fneg", "Src", 13, -1, "negative");
    QVK_Framework_Log_Internal("fbad", "Src", 14, 5, "\xff%s", "x");
}

TEST_F(Logging, TheSplitMarkerAloneWritesNothingAndAHomeMarkerLogsToTmp) {
    RunInChild([] { LogSamples(); });
    WriteFile("/tmp/Quorvik-PleaseDoLog-Split", "");
    RunInChild([] { LogSamples(); });
    EXPECT_THAT(FolderNames("/tmp"), ElementsAre("Quorvik-PleaseDoLog-Split"));

    ClearTmp();
    WriteFile(home_.path() + "/Quorvik-PleaseDoLog", "");
    pid_t pid = RunInChild([] { QVK_Framework_Log_Internal("main", "Main", 68, 5, "x"); });
    EXPECT_THAT(Log(pid), HasSubstr("main: x\n"));
}

TEST_F(Logging, CombinedFileHasTheHeaderAndOneLinePerEntry) {
    WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    pid_t pid = RunInChild([] { LogSamples(); });
    auto lines = Lines(Log(pid));
    ASSERT_EQ(lines.size(), 12u) << Log(pid);
    EXPECT_EQ(lines[0], "Project Launcher Build (null)");
    EXPECT_EQ(lines[1], "");
    EXPECT_EQ(lines[2], "System version 00001058");
    EXPECT_EQ(lines[3], "");
    std::string date(kDate);
    EXPECT_THAT(lines[4], MatchesRegex("Unknown: " + date + ": Main:68\\(Trace\\): main: Found --qvk-uninstall"));
    EXPECT_THAT(lines[5], MatchesRegex("Unknown: " + date + ": Src:1\\(Modem\\): f1: modem 7"));
    EXPECT_EQ(lines[6], "BT: paired");
    EXPECT_THAT(lines[7], MatchesRegex("Unknown: " + date + ": Src:2\\(Errors\\): fnull"));
    EXPECT_THAT(lines[8], MatchesRegex("Unknown: " + date + ": Src:3\\(Trace\\): fnl: a\\\\nb"));
    EXPECT_THAT(lines[9], MatchesRegex(".*: Src:12\\(Invalid\\): f12: twelve"));
    EXPECT_THAT(lines[10], MatchesRegex(".*: Src:13\\(Invalid\\): fneg: negative"));
    EXPECT_THAT(lines[11], MatchesRegex(".*: Src:14\\(Trace\\): fbad: Error while making log message"));
    // The per-type files need the split marker.
    EXPECT_THAT(FolderNames("/tmp"), ElementsAre("Quorvik-PleaseDoLog", "Quorvik.Log." + std::to_string(pid)));
}

TEST_F(Logging, SplitFilesAndTheConsoleUseTheShortLine) {
    WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    WriteFile("/tmp/Quorvik-PleaseDoLog-Split", "");
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    pid_t pid = RunInChild([slave] {
        dup2(slave, STDERR_FILENO);
        QVK_Framework_Log_Internal("main", "Main", 68, 5, "Found --qvk-uninstall");
        QVK_Framework_Log_Internal("f1", "Src", 1, 1, "modem");
        QVK_Framework_Log_Internal("f2", "Src", 2, 2, nullptr);
    });
    close(slave);
    // The child has ended: read all it wrote, up to the error that follows the last byte.
    std::string written;
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;) written.append(buf, static_cast<std::size_t>(n));
    close(master);
    auto console = Lines(written);
    std::string date(kDate);
    ASSERT_EQ(console.size(), 3u);
    EXPECT_THAT(console[0], MatchesRegex("Unknown " + date + " Main 68 main: Found --qvk-uninstall\r?"));
    EXPECT_THAT(console[1], MatchesRegex(date + " modem\r?"));
    EXPECT_THAT(console[2], MatchesRegex("Unknown " + date + " Src 2 f2:\r?"));

    auto trace = Lines(Log(pid, ".Trace"));
    ASSERT_EQ(trace.size(), 5u);
    EXPECT_EQ(trace[2], "System version 00001058");
    EXPECT_THAT(trace[4], MatchesRegex("Unknown " + date + " Main 68 main: Found --qvk-uninstall"));
    EXPECT_THAT(Lines(Log(pid, ".Modem")).back(), MatchesRegex(date + " modem"));
    EXPECT_THAT(Lines(Log(pid, ".Errors")).back(), MatchesRegex("Unknown " + date + " Src 2 f2:"));
    EXPECT_EQ(Lines(Log(pid)).size(), 7u);
}

TEST_F(Logging, CustomLoggerAloneGetsEntriesButNoFileOrConsole) {
    pid_t pid = RunInChild([] {
        CapturingLogger logger;
        QVK_Framework_Log_Internal("main", "Main", 68, 5, "one\ntwo");
        QVK_Framework_Log_Internal("f", "Src", 9, 2, nullptr);
        EXPECT_THAT(logger.LogLines(), ElementsAre("Main:68(Trace): main: one\\ntwo", "Src:9(Errors): f"));
    });
    EXPECT_TRUE(FolderNames("/tmp").empty());
    // With the split marker the per-type files are written too, still without a combined file.
    WriteFile("/tmp/Quorvik-PleaseDoLog-Split", "");
    pid = RunInChild([] {
        CapturingLogger logger;
        QVK_Framework_Log_Internal("main", "Main", 68, 5, "x");
    });
    EXPECT_THAT(FolderNames("/tmp"),
                ElementsAre("Quorvik-PleaseDoLog-Split", "Quorvik.Log." + std::to_string(pid) + ".Trace"));
}

// Answers the log header's version question only when told to, so that a test can act while another
// thread is inside the logger's own lock.
class PausingGestalt : public FakeGestalt {
public:
    PausingGestalt() : FakeGestalt(0x1058) {}
    std::optional<std::uint32_t> SystemVersion() override {
        inside.set_value();
        go.get_future().wait();
        return FakeGestalt::SystemVersion();
    }
    std::promise<void> inside;
    std::promise<void> go;
};

TEST_F(Logging, AThreadHoldingTheGlobalMutexMayLogWhileAnotherWritesAnEntry) {
    WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    pid_t pid = RunInChild([] {
        // A deadlock ends the child instead of leaving it behind.
        alarm(60);
        QVK_Framework_CreateGlobalMutex();
        PausingGestalt gestalt;
        platform::Replace<platform::Gestalt> useGestalt{gestalt};
        std::thread writer([] { QVK_Framework_Log_Internal("writer", "Src", 1, 5, "first"); });
        // The writer now holds the logger's own lock, opening the combined file.
        gestalt.inside.get_future().wait();
        {
            QVK_Framework_GlobalLock lock;
            gestalt.go.set_value();
            // Waits for the writer's own lock, which the writer gives up without the global mutex.
            QVK_Framework_Log_Internal("holder", "Src", 2, 5, "second");
        }
        writer.join();
    });
    auto lines = Lines(Log(pid));
    ASSERT_EQ(lines.size(), 6u) << Log(pid);
    EXPECT_THAT(lines[4], MatchesRegex(".*: Src:1\\(Trace\\): writer: first"));
    EXPECT_THAT(lines[5], MatchesRegex(".*: Src:2\\(Trace\\): holder: second"));
}

TEST_F(Logging, AForkedChildReopensOnlyTheFirstFileItChecks) {
    WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    WriteFile("/tmp/Quorvik-PleaseDoLog-Split", "");
    pid_t child = 0;
    pid_t parent = RunInChild([&child] {
        QVK_Framework_Log_Internal("p", "Src", 1, 5, "parent");
        child = RunInChild([] {
            QVK_Framework_Log_Internal("c", "Src", 2, 2, "child error");
            QVK_Framework_Log_Internal("c", "Src", 3, 5, "child trace");
        });
        // The child's id reaches the test through a file, since `child` lives in this process.
        WriteFile("/tmp/child", std::to_string(child));
    });
    std::string childId = ReadFile("/tmp/child");
    // The child's own files: only the per-type file of its first entry.
    EXPECT_THAT(Log(std::stoi(childId), ".Errors"), HasSubstr("c: child error"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/Quorvik.Log." + childId));
    EXPECT_FALSE(std::filesystem::exists("/tmp/Quorvik.Log." + childId + ".Trace"));
    // Everything else went on into the parent's files.
    EXPECT_THAT(Log(parent), HasSubstr("c: child error"));
    EXPECT_THAT(Log(parent), HasSubstr("c: child trace"));
    EXPECT_THAT(Log(parent, ".Trace"), HasSubstr("c: child trace"));
}

TEST_F(Logging, PlantedLinksHardLinksAndAnotherUsersFileAreNotWrittenThrough) {
    WriteFile("/tmp/Quorvik-PleaseDoLog", "");
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

void LogDepthSamples() {
    QVK_Log_Internal("main", "Main", 42, 1, "NoneLaunch");
    QVK_Log_Internal("f", "Src", 7, 4, "two\nlines");
    QVK_Log_Internal("g", "Src", 8, 3, nullptr);
}

std::string OnlyFileLike(const std::string& folder, const std::string& prefix, const std::string& suffix) {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::string name = entry.path().filename().string();
        if (name.starts_with(prefix) && name.ends_with(suffix)) {
            EXPECT_TRUE(found.empty()) << "two files: " << found << ", " << name;
            found = entry.path().string();
        }
    }
    return found;
}

TEST_F(Logging, DepthLoggerWritesTheTypesOfItsMaskOnly) {
    WriteFile("/tmp/Quorvik-DoLog", "255 and the rest is ignored");
    RunInChild([] { LogDepthSamples(); });
    std::string path = OnlyFileLike("/tmp", "Quorvik.", ".log");
    EXPECT_THAT(path, MatchesRegex("/tmp/Quorvik\\.[0-9]{6}\\.[0-9]{6}\\.log"));
    auto lines = Lines(ReadFile(path));
    ASSERT_EQ(lines.size(), 8u) << ReadFile(path);
    EXPECT_EQ(lines[0], "Project Launcher Build (null)");
    EXPECT_EQ(lines[2], "System version 00001058 | Log Depth 255");
    std::string date = "[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
    EXPECT_THAT(lines[4], MatchesRegex(date + " Unknown Main:42 Nomain NoneLaunch"));
    EXPECT_THAT(lines[5], MatchesRegex(date + " Unknown Src:7 Dlf two"));
    EXPECT_EQ(lines[6], "lines");
    EXPECT_THAT(lines[7], MatchesRegex(date + " Unknown Src:8 \\?\\?g"));

    ClearTmp();
    WriteFile("/tmp/Quorvik-DoLog", "4");
    RunInChild([] { LogDepthSamples(); });
    lines = Lines(ReadFile(OnlyFileLike("/tmp", "Quorvik.", ".log")));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_THAT(lines[4], HasSubstr(" Dlf two"));

    // A text without a number switches the depth logger off: the header alone.
    ClearTmp();
    WriteFile("/tmp/Quorvik-DoLog", "all");
    RunInChild([] { LogDepthSamples(); });
    lines = Lines(ReadFile(OnlyFileLike("/tmp", "Quorvik.", ".log")));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], "System version 00001058 | Log Depth 0");
}

TEST_F(Logging, DepthMarkerInTheHomeFolderWritesThereWithoutHeader) {
    WriteFile(home_.path() + "/Quorvik-DoLog", "1");
    RunInChild([] {
        std::thread([] {
            QVK_Framework_Log_SetThreadName("My Thread");
            QVK_Log_Internal("main", "Main", 42, 1, "NoneLaunch");
        }).join();
    });
    std::string path = OnlyFileLike(home_.path(), "Quorvik.", ".txt");
    EXPECT_THAT(path, MatchesRegex(".*/Quorvik\\.MyThread\\.[0-9]{6}\\.[0-9]{6}\\.txt"));
    auto lines = Lines(ReadFile(path));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], ::testing::EndsWith(" My Thread Main:42 Nomain NoneLaunch"));
    EXPECT_TRUE(OnlyFileLike("/tmp", "Quorvik.", ".log").empty());
}

}  // namespace
}  // namespace qvk::test
