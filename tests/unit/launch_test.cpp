#include "launcher/launch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

// An application with the launcher inside, in a folder whose name holds blanks, and a home folder.
class LaunchTest : public ::testing::Test {
protected:
    LaunchTest() {
        ForgetPreviousLaunchForTesting();
        WritePlist(app + "/Contents/Info.plist", {{"CFBundleIdentifier", "com.quorvik.Connect"}});
    }
    ~LaunchTest() override { ForgetPreviousLaunchForTesting(); }

    // Whether a request launches; each comes 10 s after the one before, so only the preferences decide.
    bool Launches() {
        std::size_t before = shell.commands.size();
        LaunchMyApplication();
        return shell.commands.size() > before;
    }

    TempDir dir;
    std::string app = dir.path() + "/My Apps/Quorvik Connect.app";
    std::string prefs = dir.path() + "/home/Library/Preferences/com.quorvik.Connect.plist";
    std::string command = "/usr/bin/open -a \"" + app + "\"";
    FakeHome home{dir.path() + "/home"};
    FakeBundle bundle{app + "/Launcher.app"};
    SteppingClock clock;
    RecordingShell shell;
    platform::Replace<platform::Home> useHome{home};
    platform::Replace<platform::Bundle> useBundle{bundle};
    platform::Replace<platform::Clock> useClock{clock};
    platform::Replace<platform::Shell> useShell{shell};
};

TEST_F(LaunchTest, EveryRequestRestartsTheTwoSecondIntervalASuppressedOneToo) {
    // Launches at 1000 and 2.25 s after the request before it, the clock stepping 10 s a reading.
    for (double at : {1000.0, 1001.5, 1003.0, 1005.0, 1007.25, 1008.0}) {
        clock.now = at - 10;
        LaunchMyApplication();
    }
    EXPECT_THAT(shell.commands, ElementsAre(command, command));
    EXPECT_THAT(shell.users, ElementsAre(0u, 0u)) << "as the user the Launcher acts for";

    WritePlist(prefs, {{"QVK Run Launcher", Value(0)}});
    EXPECT_FALSE(Launches());
    std::filesystem::remove(prefs);
    clock.now -= 9;  // the next reading 1 s after the suppressed request
    LaunchMyApplication();
    EXPECT_EQ(shell.commands.size(), 2u) << "the suppressed request counted for the interval";
}

TEST_F(LaunchTest, OnlyTheIntegerZeroInTheApplicationsDomainOrAnUnquotablePathStopTheLaunch) {
    const std::vector<std::pair<Value, bool>> values = {
        {Value(0), false},  {Value("0"), false}, {Value("none"), false}, {Value(false), false},     {Value(0.5), false},
        {Value(""), false}, {Value(1), true},    {Value(-3), true},      {Value(" 7 apples"), true}};
    for (const auto& [value, launches] : values) {
        WritePlist(prefs, {{"QVK Run Launcher", value}});
        EXPECT_EQ(Launches(), launches) << OneLine(value.Description());
    }
    CapturingLogger logger;
    WritePlist(prefs, {{"QVK Run Launcher", Value(Array{Value(0)})}});
    EXPECT_TRUE(Launches()) << "no number";
    EXPECT_EQ(logger.entries.at(1).type, "Errors");
    WritePlist(prefs, {{"Another Key", Value(0)}});
    EXPECT_TRUE(Launches()) << "no entry";
    std::filesystem::remove(prefs);
    WritePlist(dir.path() + "/home/Library/Preferences/other.plist", {{"QVK Run Launcher", Value(0)}});
    EXPECT_TRUE(Launches()) << "another domain's entry";
    WritePlist(prefs, {{"QVK Run Launcher", Value(0)}});
    WriteFile(app + "/Contents/Info.plist", "damaged");
    EXPECT_TRUE(Launches()) << "no identifier to find the domain by";

    // A path that could leave the command's quotes is refused.
    for (const char* name : {"/Bad\"; touch x; \".app", "/$(id).app", "/`id`.app", "/a\\.app", "/a\nb.app"}) {
        FakeBundle badBundle(dir.path() + name + "/Launcher.app");
        platform::Replace<platform::Bundle> use(badBundle);
        CapturingLogger logger;
        EXPECT_FALSE(Launches()) << name;
        EXPECT_EQ(logger.entries.at(1).type, "Errors") << name;
    }
}

}  // namespace
}  // namespace qvk::test
