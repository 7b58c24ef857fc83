#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "launcher/drivers_cleanup.h"
#include "sandbox_root.h"
#include "uninstall_fakes.h"

namespace qvk::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAreArray;

const std::string kExtensions = "/System/Library/Extensions";
const std::string kDriversUninstaller = "/Applications/Quorvik Connect DriversUninstaller.app";
const std::vector<std::string> kCaches = {
    "/System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/KextIdentifiers.plist.gz",
    "/System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/"
    "IOKitPersonalities_i386.ioplist.gz",
    "/System/Library/Extensions.mkext",
    "/System/Library/Extensions.kextcache",
};
const std::string kUserData = kHome + "/.Quorvik";
const std::string kTrashedUserData = kHome + "/.Trash/Quorvik UserData 5aa15a3f3c3d0";

// An installed driver folder whose "Quorvik Source" holds `mark`.
void MarkedFolder(const std::string& name, const std::string& mark) {
    MakeDriver(kExtensions + "/" + name, 0);
    WriteFile(kExtensions + "/" + name + "/Quorvik Source", mark);
}

void Link(const std::string& target, const std::string& name) {
    std::filesystem::create_directories(kExtensions);
    ASSERT_EQ(symlink(target.c_str(), (kExtensions + "/" + name).c_str()), 0) << name;
}

Journal Commands(const Journal& journal) {
    return Only(journal, [](const std::string& l) { return l.starts_with("$ "); });
}

// Whether `run` stands in the journal as consecutive entries.
bool HasRun(const Journal& journal, const std::vector<std::string>& run) {
    return std::search(journal.begin(), journal.end(), run.begin(), run.end()) != journal.end();
}

std::vector<std::string> Removal(const std::string& name, bool folder) {
    std::string path = kExtensions + "/" + name;
    std::vector<std::string> run = {"Launcher_DriversCleanup: Removing driver: " + path,
                                    "$ /sbin/kextunload \"" + path + "\""};
    if (folder) run.push_back("$ rm -rf \"" + path + "\"");
    return run;
}

TEST(DriversUninstall, RemovesTheDriversMarkedWithTheApplicationFolderThenTheCachesAndMovesTheData) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        MarkedFolder("Marked.kext", kApp + "/Contents/Drivers-Install/Drivers/Marked.kext\n");
        // A mark that only begins with the application folder counts as well.
        MarkedFolder("Longer.kext", kApp + " Old/Longer.kext");
        // Shorter than the folder, another package, empty, none: left alone.
        MarkedFolder("Short.kext", "/Applications/Quorvik");
        MarkedFolder("Foreign.kext", "/Applications/Other.app");
        MarkedFolder("Empty.kext", "");
        MakeDriver(kExtensions + "/NoMark.kext", 0);
        // A dot in first or second place keeps a folder out of the scan, marked or not.
        MarkedFolder("X.kext", kApp);
        MarkedFolder(".Hidden.kext", kApp);
        // Links count by their target, whatever their name; a file is never a driver.
        MakeDriver(kApp + "/Contents/Drivers/Linked.kext", 0);
        Link(kApp + "/Contents/Drivers/Linked.kext", "Linked.kext");
        Link(kApp + "/Contents/Drivers/Y.kext", "Y.kext");
        Link("/Library/Other/Elsewhere.kext", "Elsewhere.kext");
        WriteFile(kExtensions + "/Stray", kApp);
        for (const std::string& file : kCaches) WriteFile(file, "x");
        WriteFile(kDriversUninstaller + "/Contents/Info.plist", "x");
        WriteFile(kUserData + "/settings.plist", "x");

        Launcher_DriversCleanup();

        const Journal& journal = world.journal;
        EXPECT_EQ(journal.front(), "Launcher_DriversCleanup: uid: 0 euid: 0");
        EXPECT_THAT(journal, Contains("Launcher_DriversCleanup: Removing drivers from \"" + kApp + "\""));
        for (auto [name, folder] : {std::pair{"Marked.kext", true}, std::pair{"Longer.kext", true},
                                    std::pair{"Linked.kext", false}, std::pair{"Y.kext", false}})
            EXPECT_TRUE(HasRun(journal, Removal(name, folder))) << name;
        Journal commands = Commands(journal);
        ASSERT_EQ(commands.size(), 7u);
        EXPECT_EQ(commands.back(), "$ /usr/bin/killall -HUP kextd");
        // The links go, not what they point to.
        EXPECT_FALSE(Exists(kExtensions + "/Linked.kext"));
        EXPECT_FALSE(Exists(kExtensions + "/Y.kext"));
        EXPECT_TRUE(Exists(kApp + "/Contents/Drivers/Linked.kext/Contents/Info.plist"));
        EXPECT_TRUE(Exists(kExtensions + "/Elsewhere.kext"));
        for (const std::string& file : kCaches) EXPECT_FALSE(Exists(file)) << file;
        EXPECT_FALSE(Exists(kDriversUninstaller));
        // Then, as the user, the data folder goes to the Trash.
        auto killall = std::find(journal.begin(), journal.end(), "$ /usr/bin/killall -HUP kextd");
        EXPECT_THAT(Journal(killall + 1, journal.end()),
                    ElementsAre("setuid 501", "Launcher_DriversCleanup: " + kUserData + " -> " + kTrashedUserData));
        EXPECT_EQ(ReadFile(kTrashedUserData + "/settings.plist"), "x");
    });
}

TEST(DriversUninstall, WithoutAMarkedDriverNoCacheIsTouchedAndTheDaemonIsNotSignalled) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        MarkedFolder("Foreign.kext", "/Applications/Other.app");
        MarkedFolder("X.kext", kApp);
        for (const std::string& file : kCaches) WriteFile(file, "x");

        Launcher_DriversCleanup();

        EXPECT_THAT(Commands(world.journal), IsEmpty());
        for (const std::string& file : kCaches) EXPECT_TRUE(Exists(file)) << file;
        EXPECT_THAT(world.journal, Contains("setuid 501"));
        EXPECT_THAT(world.journal, Contains("Launcher_DriversCleanup: rename failed: No such file or directory"));
    });
}

TEST(DriversUninstall, WithoutTheDriverFolderTheUserStepsStillRun) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        std::filesystem::remove_all(kExtensions);
        WriteFile(kUserData + "/settings.plist", "x");

        Launcher_DriversCleanup();

        EXPECT_THAT(world.journal, Not(Contains("Launcher_DriversCleanup: Removing drivers from \"" + kApp + "\"")));
        EXPECT_THAT(Commands(world.journal), IsEmpty());
        EXPECT_EQ(world.journal.back(), "Launcher_DriversCleanup: " + kUserData + " -> " + kTrashedUserData);
        EXPECT_TRUE(Exists(kTrashedUserData + "/settings.plist"));
    });
}

TEST(DriversUninstall, ADriverPathThatCannotBeQuotedRunsNoCommandCarryingItAndTheRestRunsToItsEnd) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        const std::string bad = "Bad$(touch \\tmp\\owned)\".kext";
        MarkedFolder(bad, kApp);
        MarkedFolder("Good.kext", kApp);

        Launcher_DriversCleanup();

        const std::string path = kExtensions + "/" + bad;
        EXPECT_THAT(world.journal, Contains("Launcher_DriversCleanup (Errors): Not running \"/sbin/kextunload "
                                            "\"%s\"\" for \"" +
                                            path + "\": the path cannot be quoted"));
        EXPECT_THAT(world.journal, Contains("Launcher_DriversCleanup (Errors): Not running \"rm -rf \"%s\"\" for \"" +
                                            path + "\": the path cannot be quoted"));
        EXPECT_THAT(Commands(world.journal),
                    UnorderedElementsAreArray({"$ /sbin/kextunload \"" + kExtensions + "/Good.kext\"",
                                               "$ rm -rf \"" + kExtensions + "/Good.kext\"",
                                               std::string("$ /usr/bin/killall -HUP kextd")}));
        EXPECT_TRUE(Exists(path));
        EXPECT_THAT(world.journal, Contains("setuid 501"));
    });
}

TEST(DriversUninstall, WithoutTheSuperUserEndsBeforeChangingAnything) {
    InSandboxRoot([] {
        UninstallWorld world(0x1068);
        WriteFile(kDriversUninstaller + "/Contents/Info.plist", "x");
        JournalProcess user(world.journal, 501);
        platform::Replace<platform::ProcessIdentity> asUser(user);
        EXPECT_DEATH(Launcher_DriversCleanup(),
                     "Assertion failed: \\(getuid\\(\\)==0 \\|\\| geteuid\\(\\)==0\\), function "
                     "Launcher_DriversCleanup, file MyAutoCleanup");
        EXPECT_TRUE(Exists(kDriversUninstaller));
    });
}

}  // namespace
}  // namespace qvk::test
