#include "launcher/launch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/shell_quote.h"
#include "platform/clock.h"
#include "platform/property_list.h"
#include "platform/shell.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FakeClock : public platform::Clock {
public:
    double Now() override { return now; }
    double now = 1000.0;
};

// An application with the launcher inside, in a folder whose name holds blanks, and a home folder.
class LaunchTest : public ::testing::Test {
protected:
    LaunchTest() {
        ForgetPreviousLaunchForTesting();
        WritePlist(app + "/Contents/Info.plist", {{"CFBundleIdentifier", "com.quorvik.Connect"}});
    }
    ~LaunchTest() override { ForgetPreviousLaunchForTesting(); }

    void SetPreference(const Value& value) { WritePlist(prefs, {{"QVK Run Launcher", value}}); }
    // Launches at a fresh time, so that only the preference decides.
    bool LaunchesWith(const Value& value) {
        SetPreference(value);
        clock.now += 10;
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
    FakeClock clock;
    RecordingShell shell;
    platform::Replace<platform::Home> useHome{home};
    platform::Replace<platform::Bundle> useBundle{bundle};
    platform::Replace<platform::Clock> useClock{clock};
    platform::Replace<platform::Shell> useShell{shell};
};

TEST_F(LaunchTest, EveryRequestRestartsTheTwoSecondInterval) {
    CapturingLogger logger;
    LaunchMyApplication();  // the first request launches
    clock.now = 1001.5;
    LaunchMyApplication();  // 1.5 s later: dropped
    clock.now = 1003.0;
    LaunchMyApplication();  // 3 s after the launch but 1.5 s after the dropped one: dropped
    clock.now = 1005.0;
    LaunchMyApplication();  // exactly 2.0 s: dropped
    clock.now = 1007.25;
    LaunchMyApplication();  // 2.25 s: launches
    EXPECT_THAT(shell.commands, ElementsAre(command, command));

    // Each request logs its call site; each launch its command.
    std::string request = "Launch:15(Trace): LaunchMyApplication";
    std::string launch = "Launch:80(Trace): LaunchMyApplication: " + command;
    EXPECT_THAT(logger.LogLines(), ElementsAre(request, launch, request, request, request, request, launch));
}

TEST_F(LaunchTest, ThePreferenceZeroSuppressesTheLaunchButStillRestartsTheInterval) {
    SetPreference(Value(0));
    LaunchMyApplication();
    EXPECT_THAT(shell.commands, IsEmpty());
    std::filesystem::remove(prefs);
    clock.now += 1.0;
    LaunchMyApplication();
    EXPECT_THAT(shell.commands, IsEmpty()) << "the suppressed request counted for the interval";
    clock.now += 2.5;
    LaunchMyApplication();
    EXPECT_THAT(shell.commands, ElementsAre(command));

    EXPECT_TRUE(LaunchesWith(Value(1)));
    EXPECT_TRUE(LaunchesWith(Value(-3)));
    EXPECT_TRUE(LaunchesWith(Value(" 7 apples")));
    EXPECT_FALSE(LaunchesWith(Value("0")));
    EXPECT_FALSE(LaunchesWith(Value("none")));
    EXPECT_FALSE(LaunchesWith(Value(false)));
    EXPECT_FALSE(LaunchesWith(Value(0.5)));
    CapturingLogger logger;
    EXPECT_TRUE(LaunchesWith(Value(Array{Value(0)})));
    EXPECT_EQ(logger.entries.at(1).type, "Errors");
}

TEST_F(LaunchTest, APreferenceOfAnotherDomainOrAnUnreadableInfoPlistMeansLaunch) {
    WritePlist(dir.path() + "/home/Library/Preferences/other.plist", {{"QVK Run Launcher", Value(0)}});
    LaunchMyApplication();
    SetPreference(Value(0));
    WriteFile(app + "/Contents/Info.plist", "damaged");
    clock.now += 3;
    LaunchMyApplication();
    EXPECT_THAT(shell.commands, ElementsAre(command, command));
}

TEST_F(LaunchTest, APathThatCouldLeaveTheQuotesIsRefused) {
    for (const char* name : {"/Bad\"; touch x; \".app", "/$(id).app", "/`id`.app", "/a\\.app", "/a\nb.app"}) {
        std::string bad = dir.path() + name;
        WritePlist(bad + "/Contents/Info.plist", {{"CFBundleIdentifier", "com.quorvik.Bad"}});
        FakeBundle badBundle(bad + "/Launcher.app");
        platform::Replace<platform::Bundle> use(badBundle);
        CapturingLogger logger;
        clock.now += 10;
        LaunchMyApplication();
        ASSERT_EQ(logger.entries.size(), 2u) << name;
        EXPECT_EQ(logger.entries[1].type, "Errors") << name;
    }
    EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(LaunchTest, TheNoLaunchMarkerEndsTheProcessWithStatusZero) {
    WriteFile(dir.path() + "/home/.Quorvik-NoLaunch-Brisel", "");
    EXPECT_EXIT(
        {
            LaunchMyApplication();
            std::exit(3);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_THAT(shell.commands, IsEmpty());
}

TEST(ShellQuote, OnlyTheCharactersThatEndOrExpandDoubleQuotesAreUnsafe) {
    for (const char* safe : {"", "/Applications/Quorvik Connect.app", "/a/b'c&d;e|f*g?h(i)<j>~k!l#m",
                             "/Programme/Qu\xc3\xb6rvik.app", "/tab\there"})
        EXPECT_TRUE(QVK_Framework_SafeInDoubleQuotes(safe)) << safe;
    for (std::string unsafe : std::vector<std::string>{"a\"b", "a$b", "a`b", "a\\b", "a\nb", std::string("a\0b", 3)})
        EXPECT_FALSE(QVK_Framework_SafeInDoubleQuotes(unsafe)) << unsafe;
}

}  // namespace
}  // namespace qvk::test
