// Autostart: the launchd agent file in a real temporary home folder, the login items read from a
// real preferences file, and the commands and signals that switching off sends; whether the
// watched application folder is in the Trash, asked after real moves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/identity.h"
#include "framework/basic/auto_cleanup.h"
#include "framework/basic/autostart.h"
#include "platform/home_user.h"
#include "platform/process_signals.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

constexpr std::uint32_t kNobody = 65534;

// The commands run, and the signals sent as "kill <pid> <signal>"; "ps" answers with `listing`.
struct Switches : RecordingShell, platform::ProcessSignals {
    std::optional<std::string> Output(const std::string& command, int& status) override {
        RecordingShell::Output(command, status);
        return listing;
    }
    int Kill(pid_t pid, int signal) override { return Record(Format("kill %d %d", pid, signal)); }
    std::string listing;
};

// A home folder with the launcher bundle installed in it, in "~/Apps/Pkg.app"; the application is
// named Pkg.
class Autostart : public ::testing::Test {
protected:
    void SetUp() override { MakeLauncher(bundle_.MainBundlePath()); }
    void TearDown() override {
        AutostartBundleOverride.reset();
        platform::SetHomeUser(0);
    }
    static void MakeLauncher(const std::string& bundle, mode_t mode = 0755) {
        WriteFile(bundle + "/Contents/MacOS/Launchd Skript", "#!/bin/sh\n");
        ASSERT_EQ(chmod((bundle + "/Contents/MacOS/Launchd Skript").c_str(), mode), 0);
    }
    std::string Agents() { return home_.path + "/Library/LaunchAgents"; }

    Scoped<std::string> name_{QVK_Framework_ApplicationName, "Pkg"};
    TempDir dir_;
    CapturingLogger logger_;
    Switches switches_;
    FakeHome home_{dir_.path() + "/home"};
    FakeBundle bundle_{dir_.path() + "/home/Apps/Pkg.app/Launcher.app"};
    FakeGestalt gestalt_{0x1068};
    platform::Replace<platform::Shell> useShell_{switches_};
    platform::Replace<platform::ProcessSignals> useSignals_{switches_};
    platform::Replace<platform::Home> useHome_{home_};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    platform::Replace<platform::Gestalt> useGestalt_{gestalt_};
};

TEST_F(Autostart, TheAgentHasExactlyFiveKeysIsReplacedWholeAndSwitchingOffEndsTheLaunchersOfThisBundle) {
    QVK_Framework_Autostart_Tidyup().QVK_Framework_Tidyup_Action(true);
    EXPECT_FALSE(std::filesystem::exists(home_.path + "/Library")) << "no folder is made to remove nothing";
    std::string bundle = bundle_.MainBundlePath();
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_EQ(ReadFile(Agents() + "/Pkg.plist"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n<dict>\n\t<key>Label</key>\n\t<string>QVK Pkg</string>\n"
              "\t<key>OnDemand</key>\n\t<false/>\n\t<key>Program</key>\n\t<string>" +
                  bundle +
                  "/Contents/MacOS/Launchd Skript</string>\n\t<key>RunAtLoad</key>\n\t<true/>\n"
                  "\t<key>WorkingDirectory</key>\n\t<string>" +
                  bundle + "</string>\n</dict>\n</plist>\n");
    EXPECT_EQ(OwnerAndMode(Agents()), "0:0 755");
    EXPECT_EQ(OwnerAndMode(Agents() + "/Pkg.plist"), "0:0 644");
    EXPECT_EQ(FolderNames(Agents()), std::vector<std::string>{"Pkg.plist"}) << "no temporary file is left";

    std::string target = bundle + "/Launcher.app/Contents/MacOS/Launcher", upper = target;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    switches_.listing = "  PID COMMAND\n  101 " + target + "\n102 " + target + " --qvk-uninstall\n\t103\t" + upper +
                        "X\n  104 " + bundle + "/Contents/MacOS/Launcher\n  105 /bin/sh -c " + target + "\n    0 " +
                        target + "\n   -1 " + target + "\n  no " + target;
    switches_.commands.clear();
    QVK_Framework_Autostart_Tidyup().QVK_Framework_Tidyup_Action(true);
    EXPECT_TRUE(std::filesystem::is_empty(Agents()));
    EXPECT_THAT(switches_.commands, ElementsAre("/bin/launchctl remove \"QVK Pkg\"", "ps axww -o \"pid,command\"",
                                                "kill 101 15", "kill 102 15", "kill 103 15"));
}

TEST_F(Autostart, NothingIsWrittenBefore10_4WithoutAnExecutableScriptOrForAPathThatIsNoPlainText) {
    FakeGestalt tiger{0x103F};
    {
        platform::Replace<platform::Gestalt> useTiger{tiger};
        EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    }
    for (const char* name : {"/Pkg\xff.app/Launcher.app", "/Pkg\x01.app/Launcher.app"}) {
        MakeLauncher(*(AutostartBundleOverride = dir_.path() + name));
        EXPECT_FALSE(QVK_Framework_Autostart_Set(true)) << name;
    }
    AutostartBundleOverride.reset();
    MakeLauncher(bundle_.MainBundlePath(), 0644);
    EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    EXPECT_FALSE(std::filesystem::exists(Agents() + "/Pkg.plist"));
}

TEST_F(Autostart, TheSuperUserMakesTheAgentAsTheUserOnlyWhereTheUserMayWrite) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to act as another user";
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    platform::SetHomeUser(kNobody);
    // A home folder the user may not write in (a HOME pointed at a system folder) gets nothing.
    EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    EXPECT_FALSE(std::filesystem::exists(home_.path + "/Library"));

    ASSERT_EQ(chown(home_.path.c_str(), kNobody, kNobody), 0);
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_EQ(OwnerAndMode(Agents() + "/Pkg.plist"), "65534:65534 644");
    // A link in place of the agents folder is not followed.
    std::filesystem::remove_all(Agents());
    std::filesystem::create_directory_symlink(dir_.path(), Agents());
    EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/Pkg.plist"));
}

TEST_F(Autostart, TheLaunchdCommandIsRefusedWhenTheNameCouldLeaveItsQuotesOrTheCommandWouldNotFit) {
    // With the prefix `/bin/launchctl remove "QVK `, 1023 bytes and the terminating zero fill the buffer.
    for (const std::string& name : {std::string(995, 'n'), std::string(996, 'n'), std::string("Pkg\" ; rm -rf / \"")}) {
        switches_.commands.clear();
        QVK_Framework_ApplicationName = name;
        KillLauncher();
        EXPECT_EQ(switches_.commands.front().starts_with("/bin/launchctl"), name.size() == 995);
    }
    EXPECT_EQ(logger_.MessagesOf("KillLauncher").size(), 2u);
}

TEST_F(Autostart, LoginItemsCountOnlyBefore10_4ThenTheAgentDecides) {
    // The login items are a list; anything else is none.
    auto enabledBy = [&](const Value& item, bool listed = true) {
        WritePlist(home_.path + "/Library/Preferences/loginwindow.plist",
                   {{"AutoLaunchedApplicationDictionary", listed ? Value(Array{item}) : item}});
        return QVK_Framework_Autostart_IsEnabled();
    };
    FakeGestalt panther{0x1039};
    {
        platform::Replace<platform::Gestalt> usePanther{panther};
        EXPECT_TRUE(enabledBy(Dictionary{{"QVK Launcher Launcher", true}})) << "the marker key";
        EXPECT_TRUE(enabledBy(Dictionary{{"Path", "~/Apps/Pkg.app/Launcher.app"}})) << "the path, tilde expanded";
        EXPECT_FALSE(enabledBy(Dictionary{{"Path", bundle_.MainBundlePath() + "/"}}));
        EXPECT_FALSE(enabledBy(Dictionary{{"QVK Launcher Launcher", true}}, false));
    }
    EXPECT_FALSE(enabledBy(Dictionary{{"QVK Launcher Launcher", true}})) << "from 10.4 on only the agent counts";
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_TRUE(QVK_Framework_Autostart_IsEnabled());
    MakeLauncher(bundle_.MainBundlePath(), 0644);
    EXPECT_FALSE(QVK_Framework_Autostart_IsEnabled()) << "the agent's program must be executable";
}

TEST(TrashedApp, AnAncestorNamedDotTrashInAnyCaseAndAtAnyDepthCountsAndNothingElse) {
    TempDir dir;
    const std::filesystem::path before = std::filesystem::current_path();
    // The first two are in the Trash; the folder's own name is not looked at.
    const char* places[] = {"home/.Trash/Pkg.app", "home/.TRASH/Old/Stuff/Pkg.app", "Volumes/X/.Trashes/501/Pkg.app",
                            "home/.Trash.old/Pkg.app", "home/Apps/.Trash"};
    for (int i = 0; i < 5; ++i) {
        std::string to = dir.path() + "/" + places[i];
        std::string app = dir.path() + "/install/Pkg.app";
        std::filesystem::create_directories(app + "/Launcher.app");
        FakeBundle bundle(app + "/Launcher.app");
        platform::Replace<platform::Bundle> useBundle(bundle);
        auto watch = std::make_shared<QVK_Framework_AutoCleanup>();
        ASSERT_TRUE(watch->init());
        std::filesystem::create_directories(std::filesystem::path(to).parent_path());
        std::filesystem::rename(app, to);
        std::optional<std::string> path;
        EXPECT_EQ(watch->QVK_Framework_AutoCleanup_IsTrashedApp(&path), i < 2) << to;
        EXPECT_EQ(path, to);
        EXPECT_EQ(std::filesystem::current_path(), before) << "the working directory is restored";
    }
}

}  // namespace
}  // namespace qvk::test
