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

    // Whether a request launches, after `preference` became the value of "QVK Run Launcher"; each
    // request comes 10 s after the one before, so only the preferences decide.
    bool Launches(std::optional<Value> preference = std::nullopt) {
        if (preference) WritePlist(prefs, {{"QVK Run Launcher", *preference}});
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

    EXPECT_FALSE(Launches(Value(0)));
    std::filesystem::remove(prefs);
    clock.now -= 9;  // the next reading 1 s after the suppressed request
    LaunchMyApplication();
    EXPECT_EQ(shell.commands.size(), 2u) << "the suppressed request counted for the interval";
}

TEST_F(LaunchTest, OnlyTheIntegerZeroInTheApplicationsDomainOrAnUnquotablePathStopTheLaunch) {
    for (const Value& value : {Value(0), Value("0"), Value("none"), Value(false), Value(0.5)})
        EXPECT_FALSE(Launches(value)) << OneLine(value.Description());
    for (const Value& value : {Value(1), Value(-3), Value(" 7 apples"), Value("4294967296"), Value(Array{Value(0)})})
        EXPECT_TRUE(Launches(value)) << OneLine(value.Description());
    std::filesystem::remove(prefs);
    WritePlist(dir.path() + "/home/Library/Preferences/other.plist", {{"QVK Run Launcher", Value(0)}});
    EXPECT_TRUE(Launches()) << "another domain's entry";
    WriteFile(app + "/Contents/Info.plist", "damaged");
    EXPECT_TRUE(Launches(Value(0))) << "no identifier to find the domain by";

    // A path that could leave the command's quotes is refused.
    for (const char* name : {"/Bad\"; touch x; \".app", "/$(id).app", "/`id`.app", "/a\\.app", "/a\nb.app"}) {
        FakeBundle badBundle(dir.path() + name + "/Launcher.app");
        platform::Replace<platform::Bundle> use(badBundle);
        EXPECT_FALSE(Launches()) << name;
    }
}

}  // namespace
}  // namespace qvk::test
