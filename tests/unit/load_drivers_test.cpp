// Driver loading on real folders; the walk order, the modes and the links that leave the package
// are checked end to end (test_driver_loading.sh).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "framework/drivers/driver_permissions.h"
#include "framework/drivers/load_drivers.h"
#include "test_support.h"

namespace qvk::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

const std::string kUserFile = "1234:1234 600", kRootFile = "0:0 644";

class DriverLoading : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(geteuid(), 0u) << "these tests change owners and need root"; }

    // A driver bundle with one file, owned by a user with tight modes, as an unpacked download has it.
    std::string Driver(const std::string& path) {
        WriteFile(path + "/Contents/Info.plist", "<plist/>");
        for (const std::string& p : {path, path + "/Contents", path + "/Contents/Info.plist"}) {
            EXPECT_EQ(lchown(p.c_str(), 1234, 1234), 0);
            EXPECT_EQ(chmod(p.c_str(), p.ends_with("plist") ? 0600 : 0700), 0);
        }
        return path;
    }
    std::string Mode(const std::string& driver) { return OwnerAndMode(driver + "/Contents/Info.plist"); }
    std::vector<std::string> Messages(const std::string& function, const char* type = "Trace") {
        std::vector<std::string> lines;
        for (const auto& e : logger.entries)
            if (e.function == function && e.type == type) lines.push_back(e.message.value_or(""));
        return lines;
    }
    // The paths given to the loader in the first of the three passes.
    std::vector<std::string> FirstPass() {
        std::vector<std::string> paths;
        for (std::size_t i = 0; i < shell.commands.size() / 3; ++i)
            paths.push_back(shell.commands[i].substr(16, shell.commands[i].size() - 17));
        return paths;
    }

    TempDir temp;
    std::string app = temp.path() + "/Quorvik Connect.app";
    std::string drivers = app + "/Contents/Drivers";
    FakeBundle bundle{app + "/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle{bundle};
    FakeGestalt gestalt{0x1058};
    platform::Replace<platform::Gestalt> useGestalt{gestalt};
    RecordingShell shell;
    platform::Replace<platform::Shell> useShell{shell};
    CapturingLogger logger;
};

TEST_F(DriverLoading, TheReleaseStepsDownAcrossMajorReleasesToTheFirstWithAFolderForAnyProcessorAndStopsAt10_3) {
    struct Case {
        std::uint32_t version;
        const char* folder;
        const char* walkedFirst;
    };
    for (const Case& c :
         {Case{0x1100, "Drivers-10_15", "Drivers-x86-10_15"}, Case{0x1058, "Drivers-ppc-10_4", "Drivers-x86-10_4"},
          Case{0x1058, "Drivers-10_2", "Drivers-x86"}}) {
        fs::remove_all(drivers);
        logger.entries.clear();
        Driver(drivers + "/" + c.folder + "/A.kext");
        FakeGestalt release(c.version);
        platform::Replace<platform::Gestalt> use(release);
        QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);
        EXPECT_EQ(Messages("LoadDrivers").at(0), std::string("DriverDir ") + c.walkedFirst + " Filter (null)");
    }
    EXPECT_THAT(Messages("GetDriverPath"), Contains(drivers + "/Drivers-ppc-10_3"));
    EXPECT_THAT(Messages("GetDriverPath"), Not(Contains(drivers + "/Drivers-10_2")));
    EXPECT_EQ(shell.commands.size(), 3u) << "only the driver of the release chosen, in each pass";
}

TEST_F(DriverLoading, AFilterSelectsNamesAndSubPackagesAtEveryLevelAndTheProbeChangesNothing) {
    std::string foo = Driver(drivers + "/Drivers/Foo.kext");
    std::string bar = Driver(drivers + "/Drivers/Bar.kext");
    std::string inBar = Driver(drivers + "/Drivers/Bar.Quorvik-Package/FooInBar.kext");
    std::string inFoo = Driver(drivers + "/Drivers/Foo.Quorvik-Package/FooInner.kext");
    std::string other = Driver(drivers + "/Drivers/Foo.Quorvik-Package/Other.kext");
    std::string deep = Driver(drivers + "/Drivers/Foo.Quorvik-Package/FooNested.Quorvik-Package/FooDeep.kext");
    std::string later = Driver(drivers + "/Drivers-Demand/Foo.Quorvik-Package/FooLater.kext");

    bool found = false;
    QVK_Framework_LoadDrivers(false, std::string("Foo"), &found);
    EXPECT_TRUE(found);
    QVK_Framework_LoadDrivers(false, std::string("Baz"), &found);
    EXPECT_FALSE(found);
    EXPECT_THAT(shell.commands, IsEmpty());
    EXPECT_EQ(Mode(foo), kUserFile);

    QVK_Framework_LoadDrivers(false, std::string("Foo"), nullptr);
    EXPECT_THAT(FirstPass(), UnorderedElementsAre(foo, inFoo, deep));
    for (const std::string& d : {foo, inFoo, deep, later}) EXPECT_EQ(Mode(d), kRootFile) << d;
    for (const std::string& d : {bar, inBar, other}) EXPECT_EQ(Mode(d), kUserFile) << d;

    // The installer's release comes from its own tree; its drivers are printed, not loaded.
    shell.commands.clear();
    std::string first = Driver(app + "/Contents/Drivers-Install/Drivers-10_4/First.kext");
    Driver(drivers + "/Drivers-10_5/Elsewhere.kext");
    ::testing::internal::CaptureStdout();
    QVK_Framework_LoadDrivers(true, std::nullopt, nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), first + "\n" + first + "\n" + first + "\n");
    EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(DriverLoading, LoopsSecondNamesAndTheFirstEntryThatCannotBeFixedStopTheirDriver) {
    TempDir outside;
    std::string secret = outside.path() + "/secret";
    WriteFile(secret, "root's");
    ASSERT_EQ(chown(secret.c_str(), 1234, 1234) | chmod(secret.c_str(), 0600), 0);
    std::string loop = Driver(drivers + "/Drivers/Loop.kext");
    fs::create_symlink("..", loop + "/Contents/Up");
    fs::create_symlink(".", drivers + "/Drivers/Self.Quorvik-Package");
    std::string linked = Driver(drivers + "/Drivers/Linked.kext");
    fs::create_hard_link(secret, linked + "/Contents/Copy");
    std::string dangling = Driver(drivers + "/Drivers/Dangling.kext");
    fs::create_symlink("missing", dangling + "/Contents/Dangling");

    QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);
    EXPECT_THAT(shell.commands, IsEmpty());
    std::vector<std::string> errors = Messages("QVK_Framework_SetDriverPermissions", "Errors");
    ASSERT_EQ(errors.size(), 6u) << "each of the three passes";
    EXPECT_THAT(std::vector<std::string>(errors.begin(), errors.begin() + 2),
                UnorderedElementsAre("\"" + linked + "/Contents/Copy\" has 2 links; left unchanged",
                                     "\"" + loop + "/Contents/Up\" leads back into a folder being walked"));
    EXPECT_EQ(Messages("LoadDrivers", "Errors").at(0),
              "\"" + drivers + "/Drivers/Self.Quorvik-Package\" leads back into a folder being walked");
    EXPECT_EQ(OwnerAndMode(secret), kUserFile);
    EXPECT_FALSE(QVK_Framework_SetDriverPermissions(temp.path())) << "a path outside the application folder";
    EXPECT_EQ(OwnerAndMode(temp.path()), "0:0 700");
}

TEST_F(DriverLoading, GetPathLooksInTheLauncherBundleAndPrefersGeneralFoldersToOlderReleases) {
    std::string own = bundle.MainBundlePath() + "/Contents/Drivers-Install";
    fs::create_directories(app + "/Contents/Drivers-Install/Drivers-x86/Modem.kext");
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), std::nullopt) << "the application's tree is not searched";
    fs::create_directories(own + "/Drivers-10_2/Modem.kext");
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), std::nullopt) << "nothing below 10.3";
    // Each folder added wins over those before it.
    for (const char* folder : {"Drivers-10_3", "Drivers", "Drivers-10_5", "Drivers-x86", "Drivers-x86-10_5"}) {
        fs::create_directories(own + "/" + folder + "/Modem.kext");
        EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), own + "/" + folder + "/Modem.kext");
    }
}

}  // namespace
}  // namespace qvk::test
