#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "framework/privileges/setuid.h"
#include "launcher/strings.h"
#include "launcher/uninstall.h"
#include "launcher/uninstall_support.h"
#include "platform/property_list.h"
#include "sandbox_root.h"
#include "uninstall_fakes.h"

namespace qvk::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kExtensions = "/System/Library/Extensions";
const std::string kCopies = kApp + "/Contents/Drivers-Install/Drivers";
const std::string kUninstaller = "/Applications/Quorvik Connect Uninstall.app";
const std::string kModemScript = "/Library/Modem Scripts/Quorvik Virtual Modem";
const std::string kMkext = "/System/Libraries/Extensions.mkext";
const std::string kPlistReceipt = "/var/db/receipts/com.quorvik.Connect.package.plist";
const std::string kBomReceipt = "/var/db/receipts/com.quorvik.Connect.package.bom";
const std::string kOldReceipt = "/Library/Receipts/Quorvik.pkg";
const std::string kUserData = kHome + "/.Quorvik";
// The fixed clock's second and microseconds, 1594384805.25, in hexadecimal.
const std::string kTrashedUserData = kHome + "/.Trash/Quorvik UserData 5aa15a3f3c3d0";
constexpr time_t kShipped = 1300000000;

void WriteDeviceList(const std::string& bundle, const std::vector<std::vector<std::string>>& devices) {
    Array list;
    for (const auto& drivers : devices) {
        Array names;
        for (const std::string& name : drivers) names.emplace_back(name);
        Dictionary device;
        device.emplace("Drivers", std::move(names));
        list.emplace_back(std::move(device));
    }
    WriteFile(bundle + "/Contents/Resources/NetworkBlocker.xml", platform::XmlPropertyList(Value(list)));
}

// Puts a "ps" first on the super-user's search path that notes its arguments in
// "<folder>/ps-calls" and prints `listing`.
void InstallPs(const std::string& folder, const std::string& listing) {
    WriteFile(folder + "/ps-listing", listing);
    WriteFile("/usr/local/sbin/ps",
              "#!/bin/sh\necho \"$*\" >>\"" + folder + "/ps-calls\"\ncat \"" + folder + "/ps-listing\"\n");
    ASSERT_EQ(chmod("/usr/local/sbin/ps", 0755), 0);
}

// The application's processes as "ps -A -o pid -o comm" lists them: the Launcher itself and the
// application, process 4242.
std::string Listing(const std::string& app) {
    return Format("  PID COMM\n%5d %@/Launcher.app/Contents/MacOS/Launcher\n 4242 %@/Contents/MacOS/Quorvik\n",
                  getpid(), app, app);
}

// The sequence's own steps, without the lines of the services it calls.
Journal Steps(const Journal& journal) {
    return Only(journal, [](const std::string& line) {
        for (const char* kept :
             {"Launcher_PerformCleanup", "Launcher_Delete", "Launcher_KillApp", "KillReceipts", "KillDefaults",
              "QVK_Framework_Connection_Delete:", "$ ", "setuid ", "kill ", "tidy-up "})
            if (line.starts_with(kept)) return true;
        return false;
    });
}

const std::vector<std::string> kKillDefaults = {
    "KillDefaults: Executing: /usr/bin/defaults delete \"com.quorvik.Connect\"",
    "$ /usr/bin/defaults delete \"com.quorvik.Connect\"",
    "KillDefaults: Executing:/usr/bin/defaults delete Quorvik.Updater",
    "$ /usr/bin/defaults delete Quorvik.Updater",
};

TEST(FullUninstall, RunsEveryStepInOrderAndTurnsIntoTheUserHalfway) {
    InSandboxRoot([] {
        UninstallWorld world(0x1058);
        JournalTidyup autostart(world.journal);
        WriteDeviceList(kApp, {{"QuorvikModem.kext"}});
        MakeDriver(kExtensions + "/QuorvikModem.kext", kShipped);
        MakeDriver(kCopies + "/QuorvikModem.kext", kShipped);
        for (const std::string& file : {kMkext, kModemScript, kPlistReceipt, kBomReceipt, kOldReceipt + "/Archive.bom",
                                        kUninstaller + "/Contents/Info.plist", kUserData + "/settings.plist"})
            WriteFile(file, "x");
        InstallPs("/tmp", Listing(kApp));

        Launcher_PerformCleanup(true, kApp);

        std::vector<std::string> expected = {
            "Launcher_PerformCleanup: uid: 0 euid: 0",
            "Launcher_Delete: " + kUninstaller,
            "Launcher_Delete: " + kUninstaller + "/Contents",
            "Launcher_PerformCleanup: Removing driver: /System/Library/Extensions/QuorvikModem.kext",
            "$ /sbin/kextunload \"/System/Library/Extensions/QuorvikModem.kext\"",
            "$ rm -rf \"/System/Library/Extensions/QuorvikModem.kext\"",
            "$ killall -HUP kextd",
            "Launcher_PerformCleanup: Removing \"/Library/Modem Scripts/Quorvik Virtual Modem\"",
            "KillReceipts_LeopardPlus: Trying to delete receipts path: " + kPlistReceipt,
            "KillReceipts_LeopardPlus: /bin/rm, -rf, " + kPlistReceipt,
            "KillReceipts_LeopardPlus: <trace>",
            "KillReceipts_LeopardPlus: <trace>",
            "KillReceipts_LeopardPlus: Trying to delete receipts path: " + kBomReceipt,
            "KillReceipts_LeopardPlus: /bin/rm, -rf, " + kBomReceipt,
            "KillReceipts_LeopardPlus: <trace>",
            "KillReceipts_LeopardPlus: <trace>",
        };
        expected.insert(expected.end(), kKillDefaults.begin(), kKillDefaults.end());
        expected.insert(expected.end(), {"QVK_Framework_Connection_Delete: <trace>", "kill 4242 15", "setuid 501",
                                         "Launcher_PerformCleanup: uid: 501 euid: 501", "tidy-up 1"});
        expected.insert(expected.end(), kKillDefaults.begin(), kKillDefaults.end());
        expected.insert(expected.end(), {
                                            "Launcher_PerformCleanup: " + kUserData + " -> " + kTrashedUserData,
                                            "KillReceipts: Path: " + kOldReceipt,
                                            "KillReceipts: /bin/rm, -rf, " + kOldReceipt,
                                            "KillReceipts: <trace>",
                                            "KillReceipts: <trace>",
                                            "KillReceipts: <trace>",
                                            "kill 4242 15",
                                        });
        EXPECT_THAT(Steps(world.journal), ElementsAreArray(expected));

        for (const std::string& gone :
             {kUninstaller, kMkext, kModemScript, kPlistReceipt, kBomReceipt, kOldReceipt, kUserData})
            EXPECT_FALSE(Exists(gone)) << gone;
        EXPECT_EQ(ReadFile(kTrashedUserData + "/settings.plist"), "x");
        // The receipts go through "/bin/rm" itself, with nothing of the Launcher's environment.
        EXPECT_THAT(Only(world.journal, [](const std::string& line) { return line.starts_with("start "); }),
                    ElementsAre("start /bin/rm /bin/rm -rf " + kPlistReceipt + " | 0 as self",
                                "start /bin/rm /bin/rm -rf " + kBomReceipt + " | 0 as self",
                                "start /bin/rm /bin/rm -rf " + kOldReceipt + " | 0 as self"));
        EXPECT_THAT(Lines(ReadFile("/tmp/ps-calls")), ElementsAre("-A -o pid -o comm", "-A -o pid -o comm"));
    });
}

TEST(FullUninstall, ReceiptSchemesFollowTheSystemRelease) {
    struct Case {
        std::uint32_t version;
        bool newGone, oldGone;
    };
    // 10.5.0 keeps only the old scheme, 10.5.1 to 10.5.x have both, 10.6 only the new one.
    for (Case c : {Case{0x1050, false, true}, Case{0x1051, true, true}, Case{0x1058, true, true},
                   Case{0x1060, true, false}, Case{0x1068, true, false}}) {
        SCOPED_TRACE(Format("system version %x", c.version));
        InSandboxRoot([c] {
            UninstallWorld world(c.version);
            for (const std::string& file : {kPlistReceipt, kBomReceipt, kOldReceipt + "/Archive.bom"})
                WriteFile(file, "x");
            Launcher_PerformCleanup(false, kApp);
            EXPECT_EQ(!Exists(kPlistReceipt), c.newGone);
            EXPECT_EQ(!Exists(kBomReceipt), c.newGone);
            EXPECT_EQ(!Exists(kOldReceipt), c.oldGone);
            // Without killApp nothing is looked for or stopped.
            EXPECT_THAT(Only(world.journal, [](const std::string& l) { return l.starts_with("kill "); }), IsEmpty());
        });
    }
}

// Only shell commands about drivers.
Journal DriverCommands(const Journal& journal) {
    return Only(journal, [](const std::string& line) {
        return line.starts_with("$ ") && line.find("kext") != std::string::npos;
    });
}

TEST(FullUninstall, RemovesOnlyInstalledDriversIdenticalToThePackageCopiesWithNamesOverSevenCharacters) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        WriteDeviceList(kApp, {{"Ab.kext", "Abc.kext"},
                               {"Abc.kext", "Other.kext", "NoCopy.kext", "NotThere.kext", "../Outside.kext"}});
        for (const char* name : {"Ab.kext", "Abc.kext", "Other.kext", "NoCopy.kext"})
            MakeDriver(kExtensions + "/" + name, kShipped);
        for (const char* name : {"Ab.kext", "Abc.kext", "NotThere.kext"}) MakeDriver(kCopies + "/" + name, kShipped);
        // Installed by something else: another modification time.
        MakeDriver(kCopies + "/Other.kext", kShipped + 60);
        // A name that leads out of the driver folder, with a copy that would match.
        MakeDriver("/System/Library/Outside.kext", kShipped);
        MakeDriver(kApp + "/Contents/Drivers-Install/Outside.kext", kShipped);
        WriteFile(kMkext, "x");

        Launcher_PerformCleanup(false, kApp);

        EXPECT_THAT(DriverCommands(world.journal),
                    ElementsAre("$ /sbin/kextunload \"" + kExtensions + "/Abc.kext\"",
                                "$ rm -rf \"" + kExtensions + "/Abc.kext\"", "$ killall -HUP kextd"));
        EXPECT_THAT(world.journal,
                    Contains("Launcher_PerformCleanup (Errors): Not a driver name: \"../Outside.kext\""));
        EXPECT_FALSE(Exists(kMkext));
    });
}

TEST(FullUninstall, WithoutAnIdenticalDriverTheCacheStaysAndTheDaemonIsNotSignalled) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        WriteDeviceList(kApp, {{"Other.kext"}});
        MakeDriver(kExtensions + "/Other.kext", kShipped);
        MakeDriver(kCopies + "/Other.kext", kShipped + 1);
        WriteFile(kMkext, "x");

        Launcher_PerformCleanup(false, kApp);

        EXPECT_THAT(DriverCommands(world.journal), IsEmpty());
        EXPECT_THAT(world.journal, Not(Contains("$ killall -HUP kextd")));
        EXPECT_TRUE(Exists(kMkext));
        EXPECT_TRUE(Exists(kExtensions + "/Other.kext"));
    });
}

TEST(FullUninstall, AMissingDataFolderIsLoggedAndTheSequenceGoesOn) {
    InSandboxRoot([] {
        UninstallWorld world(0x1058);
        InstallPs("/tmp", Listing(kApp));

        Launcher_PerformCleanup(true, kApp);

        Journal steps = Steps(world.journal);
        auto failed =
            std::find(steps.begin(), steps.end(), "Launcher_PerformCleanup: rename failed: No such file or directory");
        ASSERT_NE(failed, steps.end());
        EXPECT_THAT(
            Journal(failed + 1, steps.end()),
            ElementsAre("KillReceipts: Path: " + kOldReceipt, "KillReceipts: /bin/rm, -rf, " + kOldReceipt,
                        "KillReceipts: <trace>", "KillReceipts: <trace>", "KillReceipts: <trace>", "kill 4242 15"));
    });
}

TEST(FullUninstall, APackagePathThatCannotBeQuotedRunsNoCommandCarryingItAndTheRestRunsToItsEnd) {
    InSandboxRoot([] {
        const std::string app = "/Applications/Quorvik \"$(touch /tmp/owned)\".app";
        UninstallWorld world(0x1058, app);
        JournalTidyup autostart(world.journal);
        const std::string driver = "Evil$(touch owned)`touch owned`.kext";
        WriteDeviceList(app, {{driver}});
        MakeDriver(kExtensions + "/" + driver, kShipped);
        MakeDriver(app + "/Contents/Drivers-Install/Drivers/" + driver, kShipped);
        WriteFile(kUserData + "/settings.plist", "x");
        InstallPs("/tmp", Listing(app));

        Launcher_PerformCleanup(true, app);

        // Neither driver command, nor the process search, with either text.
        EXPECT_THAT(
            Only(Steps(world.journal), [](const std::string& l) { return l.find("owned") != std::string::npos; }),
            ElementsAre(
                "Launcher_PerformCleanup: Removing driver: " + kExtensions + "/" + driver,
                "Launcher_PerformCleanup (Errors): Not running \"/sbin/kextunload \"%s\"\" for \"" + kExtensions + "/" +
                    driver + "\": the path cannot be quoted",
                "Launcher_PerformCleanup (Errors): Not running \"rm -rf \"%s\"\" for \"" + kExtensions + "/" + driver +
                    "\": the path cannot be quoted",
                "Launcher_KillApp (Errors): Not looking for processes of \"" + app + "\": the path cannot be quoted",
                "Launcher_KillApp (Errors): Not looking for processes of \"" + app + "\": the path cannot be quoted"));
        EXPECT_FALSE(Exists("/tmp/ps-calls"));
        EXPECT_FALSE(Exists("/tmp/owned"));
        EXPECT_FALSE(Exists("/owned"));
        EXPECT_TRUE(Exists(kExtensions + "/" + driver));
        // Everything else still ran, to the end.
        Journal steps = Steps(world.journal);
        for (const char* step : {"$ killall -HUP kextd", "setuid 501", "tidy-up 1", "KillReceipts: <trace>"})
            EXPECT_THAT(steps, Contains(step));
        EXPECT_TRUE(Exists(kTrashedUserData + "/settings.plist"));
    });
}

TEST(FullUninstall, WithoutTheSuperUserEndsBeforeChangingAnything) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        WriteFile(kUninstaller + "/Contents/Info.plist", "x");
        JournalProcess user(world.journal, 501);
        platform::Replace<platform::ProcessIdentity> asUser(user);
        EXPECT_DEATH(Launcher_PerformCleanup(true, kApp),
                     "Assertion failed: \\(getuid\\(\\)==0 \\|\\| geteuid\\(\\)==0\\), function "
                     "Launcher_PerformCleanup, file MyAutoCleanup");
        EXPECT_TRUE(Exists(kUninstaller));
    });
}

TEST(RestartMessage, ShowsTheLocalizedTextWithOneButton) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        ForgetStringsForTesting();
        QVK_PreferredLanguage = nullptr;
        InitStrings();
        Launcher_ShowRestartMessage();
        const std::string text =
            "Quorvik Connect has been deinstalled, but some parts remain in the system until the next restart";
        EXPECT_THAT(world.journal, Contains("Launcher_ShowRestartMessage: Message: " + text));
        EXPECT_THAT(world.journal, Contains("panel [Quorvik Connect] [" + text + "] [OK] [(null)]"));
    });
}

TEST(QuotedCommands, APathThatWouldLeaveTheQuotesOrOverflowTheBufferIsRefusedNeverCut) {
    Journal journal;
    JournalLogger logger(journal);
    JournalShell shell(journal);
    platform::Replace<platform::Shell> useShell(shell);
    // "rm -rf \"" and "\"" take 9 bytes: 1014 bytes of path give 1023, the most that fits.
    const std::string fits = "/" + std::string(1013, 'a');
    EXPECT_TRUE(RunQuotedCommand("f", "s", "rm -rf \"%s\"", fits));
    EXPECT_FALSE(RunQuotedCommand("f", "s", "rm -rf \"%s\"", fits + "b"));
    for (const char* bad : {"/a\"b", "/a$b", "/a`b", "/a\\b", "/a\nb"})
        EXPECT_FALSE(RunQuotedCommand("f", "s", "rm -rf \"%s\"", bad)) << bad;
    Journal commands = Only(journal, [](const std::string& l) { return l.starts_with("$ "); });
    ASSERT_THAT(commands, ElementsAre("$ rm -rf \"" + fits + "\""));
    EXPECT_EQ(Only(journal, [](const std::string& l) { return l.starts_with("f (Errors): "); }).size(), 6u);
    EXPECT_THAT(journal, Contains("f (Errors): Not running \"rm -rf \"%s\"\" for \"" + fits +
                                  "b\": the command would exceed 1024 bytes"));
}

}  // namespace
}  // namespace qvk::test
