// The Launcher's reactions to its application being trashed or moved, each run to its end in a
// sandbox root: both end the process, so the trigger runs in a child of the sandbox.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "framework/base/identity.h"
#include "framework/basic/autostart.h"
#include "launcher/my_auto_cleanup.h"
#include "launcher/strings.h"
#include "platform/kernel_queue.h"
#include "platform/property_list.h"
#include "sandbox_root.h"
#include "uninstall_fakes.h"

namespace qvk::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

const std::string kAgent = kHome + "/Library/LaunchAgents/Quorvik Connect.plist";
const std::string kTrashedApp = kHome + "/.Trash/Quorvik Connect.app";
const std::string kMovedApp = "/Applications/Moved/Quorvik Connect.app";
const std::string kJournalFile = "/tmp/journal";

// The journal of the child that runs the trigger, written out as it exits.
const Journal* ChildJournal = nullptr;
void WriteChildJournal() {
    std::string text;
    for (const std::string& line : *ChildJournal) text += line + "\n";
    WriteFile(kJournalFile, text);
}

// Runs the trigger in a child, as the run loop would hand over a rename, and gives its exit status.
int Trigger(MyAutoCleanup& watch, const Journal& journal) {
    platform::KernelEvent event{static_cast<std::uintptr_t>(watch.QVK_Framework_FileMonitor_MonitoredHandle()),
                                platform::kEventFilterVnode,
                                platform::kEventClear,
                                platform::kNoteRename,
                                0,
                                &watch};
    Data record;
    record.bytes.assign(reinterpret_cast<const std::uint8_t*>(&event),
                        reinterpret_cast<const std::uint8_t*>(&event) + sizeof event);
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        ChildJournal = &journal;
        std::atexit(WriteChildJournal);
        watch.QVK_Framework_FileMonitor_Triggered(&record);
        _exit(99);  // the trigger never returns
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// The installed package with its "Launchd Skript", an agent of the user's and the watch on it.
std::shared_ptr<MyAutoCleanup> Install() {
    std::string script = kApp + "/Launcher.app/Contents/MacOS/Launchd Skript";
    WriteFile(script, "#!/bin/sh\n");
    chmod(script.c_str(), 0755);
    WriteFile(kAgent, "<plist/>");
    for (const std::string& folder : {kHome, kHome + "/Library", kHome + "/Library/LaunchAgents"})
        EXPECT_EQ(chown(folder.c_str(), MyUser, 20), 0);
    auto watch = std::make_shared<MyAutoCleanup>();
    EXPECT_TRUE(watch->init());
    return watch;
}

TEST(MyAutoCleanupTrigger, TrashedTheApplicationIsUninstalledFromTheTrashThenTheUserIsToldAndTheLauncherEnds) {
    InSandboxRoot([] {
        UninstallWorld world(0x1060);
        InitStrings();
        auto watch = Install();
        // A driver that only the package in the Trash can name any more.
        WriteFile(kApp + "/Contents/Resources/NetworkBlocker.xml",
                  platform::XmlPropertyList(
                      Value(Array{Value(Dictionary{{"Drivers", Value(Array{Value("QuorvikModem.kext")})}})})));
        MakeDriver("/System/Library/Extensions/QuorvikModem.kext", 1300000000);
        MakeDriver(kApp + "/Contents/Drivers-Install/Drivers/QuorvikModem.kext", 1300000000);
        WriteFile("/Library/Modem Scripts/Quorvik Virtual Modem", "x");
        ASSERT_EQ(rename(kApp.c_str(), kTrashedApp.c_str()), 0);

        int status = Trigger(*watch, world.journal);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        Journal journal = Lines(ReadFile(kJournalFile));
        EXPECT_THAT(journal, Contains("-[QVK_Framework_AutoCleanup QVK_Framework_AutoCleanup_IsTrashedApp:]: "
                                      "App is in \"" +
                                      kTrashedApp + "\""));
        EXPECT_THAT(journal, Contains("$ /sbin/kextunload \"/System/Library/Extensions/QuorvikModem.kext\""));
        EXPECT_THAT(journal, Contains("$ /bin/launchctl remove \"QVK Quorvik Connect\""));
        EXPECT_THAT(Only(journal, [](const std::string& l) { return l.starts_with("kill "); }), ElementsAre())
            << "the application is not stopped";
        ASSERT_FALSE(journal.empty());
        EXPECT_TRUE(journal.back().starts_with("panel [Quorvik Connect]")) << journal.back();
        EXPECT_FALSE(Exists("/Library/Modem Scripts/Quorvik Virtual Modem"));
        EXPECT_FALSE(Exists(kAgent));
        EXPECT_TRUE(Exists(kTrashedApp + "/Launcher.app")) << "emptying the Trash is the user's";
        EXPECT_THAT(Only(journal, [](const std::string& l) { return l.find("/usr/bin/open") != std::string::npos; }),
                    ElementsAre())
            << "no restart";
    });
}

TEST(MyAutoCleanupTrigger, MovedAndTheRestartFailsTheLauncherTriesOnceMoreInAChildAndEndsQuietly) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        auto watch = Install();
        std::filesystem::create_directories("/Applications/Moved");
        ASSERT_EQ(rename(kApp.c_str(), kMovedApp.c_str()), 0);

        int status = Trigger(*watch, world.journal);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        Journal journal = Lines(ReadFile(kJournalFile));
        // The user's own start of the launcher at its new place, with the environment; replacing
        // this process fails here, so a child tries once more.
        std::vector<std::string> attempts =
            Only(journal, [](const std::string& l) { return l.starts_with("replace ") || l.starts_with("start "); });
        ASSERT_EQ(attempts.size(), 2u);
        EXPECT_TRUE(attempts[0].starts_with("replace /usr/bin/open /usr/bin/open -a " + kMovedApp + "/Launcher.app |"));
        EXPECT_TRUE(attempts[0].ends_with(" as 501")) << attempts[0];
        EXPECT_EQ(attempts[1], "start" + attempts[0].substr(7));
        EXPECT_THAT(Only(journal, [](const std::string& l) { return l.starts_with("$ ") || l.starts_with("-[My"); }),
                    ElementsAre("$ /bin/launchctl remove \"QVK Quorvik Connect\"",
                                "-[MyAutoCleanup QVK_Framework_FileMonitor_Triggered:]: New launcher path: " +
                                    kMovedApp + "/Launcher.app"));
        EXPECT_THAT(journal, Contains("QVK_Framework_Autostart_Set: no"));
        EXPECT_THAT(journal, Contains("QVK_Framework_Autostart_Set: yes"));
    });
}

TEST(DoAutoCleanup, RemovesThisBuildsKeyAndStartsTheWatchOnceOrNotAtAll) {
    TempDir dir;
    FakeHome home(dir.path() + "/home");
    FakeBundle bundle(dir.path() + "/Pkg.app/Launcher.app");
    platform::Replace<platform::Home> useHome(home);
    platform::Replace<platform::Bundle> useBundle(bundle);
    QVK_Framework_BuildID_App = "200710.144004";
    WriteFile(bundle.MainBundlePath() + "/Contents/Info.plist",
              platform::XmlPropertyList(Value(Dictionary{{"CFBundleIdentifier", Value("com.quorvik.Launcher")}})));
    auto writeDefaults = [&](const std::string& domain) {
        std::string path = home.HomeDirectory() + "/Library/Preferences/" + domain + ".plist";
        WriteFile(path, platform::XmlPropertyList(Value(Dictionary{
                            {"QVK Autostart Installed 200710.144004", Value(true)},
                            {"QVK Autostart Installed 190101.000000", Value(true)},
                        })));
        return path;
    };
    const Value kept(Dictionary{{"QVK Autostart Installed 190101.000000", Value(true)}});

    AutoCleanup.reset();
    std::string defaults = writeDefaults("com.quorvik.Launcher");
    DoAutoCleanup();
    EXPECT_EQ(platform::ReadPropertyList(defaults), kept);
    ASSERT_NE(AutoCleanup, nullptr);
    MyAutoCleanup* first = AutoCleanup.get();
    DoAutoCleanup();
    EXPECT_EQ(AutoCleanup.get(), first) << "one watch only";

    // Without the application folder (nor the bundle's identifier, so the domain is named after
    // the executable) there is no watch, and the key still goes.
    AutoCleanup.reset();
    FakeBundle missing(dir.path() + "/Missing.app/Launcher.app");
    platform::Replace<platform::Bundle> useMissing(missing);
    defaults = writeDefaults("Launcher");
    DoAutoCleanup();
    EXPECT_EQ(AutoCleanup, nullptr);
    EXPECT_EQ(platform::ReadPropertyList(defaults), kept);
    QVK_Framework_BuildID_App = nullptr;
}

}  // namespace
}  // namespace qvk::test
