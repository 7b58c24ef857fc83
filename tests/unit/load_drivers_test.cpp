#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>

#include "framework/drivers/driver_permissions.h"
#include "framework/drivers/load_drivers.h"
#include "platform/shell.h"
#include "test_support.h"

namespace qvk::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

const std::string kUserFolder = "1234:1234 700", kUserFile = "1234:1234 600";
const std::string kRootFolder = "0:0 755", kRootFile = "0:0 644";

void ForTree(const std::string& path, const std::function<void(const fs::path&)>& each) {
    each(path);
    if (fs::is_directory(fs::symlink_status(path)))
        for (const auto& entry : fs::recursive_directory_iterator(path)) each(entry.path());
}

// Gives the tree to a user with tight modes, as an unpacked download has them.
void GiveToUser(const std::string& path) {
    ForTree(path, [](const fs::path& p) {
        ASSERT_EQ(lchown(p.c_str(), 1234, 1234), 0) << p;
        if (!fs::is_symlink(p)) {
            ASSERT_EQ(chmod(p.c_str(), fs::is_directory(p) ? 0700 : 0600), 0) << p;
        }
    });
}

void ExpectTree(const std::string& path, const std::string& folder, const std::string& file) {
    ForTree(path, [&](const fs::path& p) {
        if (!fs::is_symlink(p)) {
            EXPECT_EQ(OwnerAndMode(p), fs::is_directory(p) ? folder : file) << p;
        }
    });
}

long Count(const std::vector<std::string>& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
}

std::vector<std::string> ThreeTimes(const std::vector<std::string>& pass) {
    std::vector<std::string> all;
    for (int i = 0; i < 3; ++i) all.insert(all.end(), pass.begin(), pass.end());
    return all;
}

class DriverLoading : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(geteuid(), 0u) << "these tests change owners and need root"; }

    void Forget() {
        logger.entries.clear();
        shell.commands.clear();
    }

    // A driver bundle with one file, owned by the user.
    std::string Driver(const std::string& path) {
        WriteFile(path + "/Contents/Info.plist", "<plist/>");
        GiveToUser(path);
        return path;
    }

    std::vector<std::string> Messages(const std::string& function, const std::string& type = "Trace") const {
        std::vector<std::string> lines;
        for (const auto& e : logger.entries)
            if (e.function == function && e.type == type) lines.push_back(e.message.value_or(""));
        return lines;
    }
    std::vector<std::string> Walked() const {
        std::vector<std::string> walked;
        for (const std::string& m : Messages("LoadDrivers"))
            if (m.starts_with("DriverDir ")) walked.push_back(m);
        return walked;
    }
    // The paths given to the loader.
    std::vector<std::string> Loaded() const {
        std::vector<std::string> paths;
        for (const std::string& c : shell.commands) {
            EXPECT_TRUE(c.starts_with("/sbin/kextload \"") && c.ends_with("\"")) << c;
            paths.push_back(c.substr(16, c.size() - 17));
        }
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

TEST_F(DriverLoading, WalksTheBestReleaseThenTheGeneralFoldersThreeTimesAndLoadsOnlyRegularOnes) {
    std::string specific = Driver(drivers + "/Drivers-x86-10_4/Specific.kext");
    std::string onDemand = Driver(drivers + "/Drivers-x86-10_4-Demand/OnDemand.kext");
    std::string general = Driver(drivers + "/Drivers/General.kext");
    std::string stray = drivers + "/Drivers/stray.txt";
    WriteFile(stray, "not a driver, loaded all the same");
    GiveToUser(stray);
    // Paths that could leave the loader's quotes are refused, and the walk goes on.
    std::string quote = Driver(drivers + "/Drivers/Bad\"$(touch pwned).kext");
    std::string backslash = Driver(drivers + "/Drivers/Back\\slash.kext");

    QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);

    // 10_5 has no folder for any processor; 10_4 has one for x86.
    std::vector<std::string> searched = Messages("GetDriverPath");
    searched.resize(5);
    EXPECT_THAT(searched,
                ElementsAre(drivers + "/Drivers-10_5", drivers + "/Drivers-x86-10_5", drivers + "/Drivers-ppc-10_5",
                            drivers + "/Drivers-10_4", drivers + "/Drivers-x86-10_4"));
    EXPECT_THAT(Walked(),
                ElementsAreArray(ThreeTimes(
                    {"DriverDir Drivers-x86-10_4 Filter (null)", "DriverDir Drivers-x86-10_4-Demand Filter (null)",
                     "DriverDir Drivers-10_4 Filter (null)", "DriverDir Drivers-10_4-Demand Filter (null)",
                     "DriverDir Drivers-x86 Filter (null)", "DriverDir Drivers-x86-Demand Filter (null)",
                     "DriverDir Drivers Filter (null)", "DriverDir Drivers-Demand Filter (null)"})));
    std::vector<std::string> pass = Loaded();
    ASSERT_EQ(pass.size(), 9u);
    pass.resize(3);
    EXPECT_EQ(pass[0], specific);
    EXPECT_THAT(std::vector<std::string>(pass.begin() + 1, pass.end()), UnorderedElementsAre(general, stray));
    EXPECT_THAT(Loaded(), ElementsAreArray(ThreeTimes(pass)));
    EXPECT_EQ(Messages("LoadDrivers")[1], "Executing \"/sbin/kextload \"" + specific + "\"\"");
    EXPECT_THAT(
        Messages("LoadDrivers", "Errors"),
        UnorderedElementsAreArray(ThreeTimes({"Not loading \"" + quote + "\": the path cannot be quoted",
                                              "Not loading \"" + backslash + "\": the path cannot be quoted"})));
    // Demand drivers get owner and modes too.
    for (const std::string& d : {specific, onDemand, general, stray}) ExpectTree(d, kRootFolder, kRootFile);
}

TEST_F(DriverLoading, ReleaseSearchStepsDownAcrossMajorReleasesAndStopsAt10_3) {
    // 11.0 steps down to 10.15; the major part is printed in hexadecimal.
    Driver(drivers + "/Drivers-10_15/A.kext");
    {
        FakeGestalt bigSur{0x1100};
        platform::Replace<platform::Gestalt> use(bigSur);
        QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);
    }
    std::vector<std::string> searched = Messages("GetDriverPath");
    searched.resize(4);
    EXPECT_THAT(searched, ElementsAre(drivers + "/Drivers-11_0", drivers + "/Drivers-x86-11_0",
                                      drivers + "/Drivers-ppc-11_0", drivers + "/Drivers-10_15"));
    EXPECT_EQ(Walked()[0], "DriverDir Drivers-x86-10_15 Filter (null)");

    // Another processor's folder is enough to choose a release.
    Forget();
    fs::remove_all(drivers);
    Driver(drivers + "/Drivers-ppc-10_4/B.kext");
    QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);
    EXPECT_EQ(Walked()[0], "DriverDir Drivers-x86-10_4 Filter (null)");

    // Nothing from 10_5 down to 10_3: no release folders are walked, and 10_2 is never looked at.
    Forget();
    fs::remove_all(drivers);
    Driver(drivers + "/Drivers-10_2/C.kext");
    QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);
    std::vector<std::string> all = Messages("GetDriverPath");
    EXPECT_EQ(all[8], drivers + "/Drivers-ppc-10_3");
    EXPECT_EQ(all[9], drivers + "/Drivers-x86");
    EXPECT_THAT(Walked(), ElementsAreArray(ThreeTimes(
                              {"DriverDir Drivers-x86 Filter (null)", "DriverDir Drivers-x86-Demand Filter (null)",
                               "DriverDir Drivers Filter (null)", "DriverDir Drivers-Demand Filter (null)"})));
    EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(DriverLoading, FilterSelectsNamesAndSubPackagesAtEveryLevel) {
    std::string foo = Driver(drivers + "/Drivers/Foo.kext");
    std::string bar = Driver(drivers + "/Drivers/Bar.kext");
    std::string barPackage = drivers + "/Drivers/Bar.Quorvik-Package";
    std::string inBar = Driver(barPackage + "/FooInBar.kext");
    std::string fooPackage = drivers + "/Drivers/Foo.Quorvik-Package";
    std::string inFoo = Driver(fooPackage + "/FooInner.kext");
    std::string other = Driver(fooPackage + "/Other.kext");
    std::string deep = Driver(fooPackage + "/FooNested.Quorvik-Package/FooDeep.kext");
    std::string demandPackage = drivers + "/Drivers-Demand/Foo.Quorvik-Package";
    std::string inDemand = Driver(demandPackage + "/FooLater.kext");

    QVK_Framework_LoadDrivers(false, std::string("Foo"), nullptr);

    std::vector<std::string> pass = Loaded();
    pass.resize(3);
    EXPECT_THAT(pass, UnorderedElementsAre(foo, inFoo, deep));
    EXPECT_THAT(Loaded(), ElementsAreArray(ThreeTimes(pass)));
    // Sub-packages are walked by their absolute path, with the same filter and demand flag.
    EXPECT_EQ(Count(Walked(), "DriverDir " + fooPackage + " Filter Foo"), 3);
    EXPECT_EQ(Count(Walked(), "DriverDir " + fooPackage + "/FooNested.Quorvik-Package Filter Foo"), 3);
    EXPECT_EQ(Count(Walked(), "DriverDir " + demandPackage + " Filter Foo"), 3);
    EXPECT_EQ(Count(Walked(), "DriverDir " + barPackage + " Filter Foo"), 0);
    for (const std::string& d : {foo, inFoo, deep, inDemand}) ExpectTree(d, kRootFolder, kRootFile);
    for (const std::string& d : {bar, inBar, other}) ExpectTree(d, kUserFolder, kUserFile);
}

TEST_F(DriverLoading, ProbeModeChangesNothingAndInstallerModePrintsInsteadOfLoading) {
    Driver(drivers + "/Drivers-x86-Demand/Later.kext");
    bool found = true;
    QVK_Framework_LoadDrivers(false, std::nullopt, &found);
    EXPECT_FALSE(found) << "entries of demand folders are not loadable";
    Driver(drivers + "/Drivers-x86/A.Quorvik-Package/Nested.kext");
    GiveToUser(drivers);
    QVK_Framework_LoadDrivers(false, std::nullopt, &found);
    EXPECT_TRUE(found);
    QVK_Framework_LoadDrivers(false, std::string("B"), &found);
    EXPECT_FALSE(found);
    EXPECT_THAT(shell.commands, IsEmpty());
    ExpectTree(drivers, kUserFolder, kUserFile);

    // The installer's release comes from its own tree: 10_5 exists only in the other one.
    std::string install = app + "/Contents/Drivers-Install";
    Driver(drivers + "/Drivers-x86-10_5/Elsewhere.kext");
    GiveToUser(drivers);
    std::string first = Driver(install + "/Drivers-10_4/First.kext");
    std::string onDemand = Driver(install + "/Drivers-Demand/OnDemand.kext");
    ::testing::internal::CaptureStdout();
    QVK_Framework_LoadDrivers(true, std::nullopt, nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), first + "\n" + first + "\n" + first + "\n");
    EXPECT_THAT(shell.commands, IsEmpty());
    ExpectTree(install, kRootFolder, kRootFile);
    ExpectTree(drivers, kUserFolder, kUserFile);
}

TEST_F(DriverLoading, LinksAreFollowedOnlyWhileTheyStayInsideThePackage) {
    TempDir outside;
    std::string secret = outside.path() + "/secret";
    WriteFile(secret, "root's");
    GiveToUser(secret);
    std::string outsideFolder = Driver(outside.path() + "/folder");
    std::string shared = Driver(app + "/Contents/Shared/Shared.kext");
    std::string inside = drivers + "/Drivers/Inside.kext";
    fs::create_directories(drivers + "/Drivers");
    fs::create_symlink("../../Shared/Shared.kext", inside);
    fs::create_symlink(secret, drivers + "/Drivers/File.kext");
    fs::create_symlink(outsideFolder, drivers + "/Drivers/Folder.kext");
    // The way out is met only beneath an entry that is itself inside.
    std::string mixed = Driver(drivers + "/Drivers/Mixed.kext");
    fs::create_symlink(fs::relative(secret, mixed + "/Contents"), mixed + "/Contents/Escape");
    // Links back into folders being walked would never end.
    std::string loop = Driver(drivers + "/Drivers/Loop.kext");
    fs::create_symlink("..", loop + "/Contents/Up");
    fs::create_symlink(".", drivers + "/Drivers/Self.Quorvik-Package");
    // A second name of a file outside, inside a driver that is itself inside.
    std::string linked = Driver(drivers + "/Drivers/Linked.kext");
    fs::create_hard_link(secret, linked + "/Contents/Copy");

    QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);

    EXPECT_THAT(Loaded(), ElementsAre(inside, inside, inside));
    ExpectTree(shared, kRootFolder, kRootFile);
    ExpectTree(loop, kRootFolder, kRootFile);
    EXPECT_EQ(OwnerAndMode(secret), kUserFile);
    ExpectTree(outsideFolder, kUserFolder, kUserFile);
    std::vector<std::string> errors = Messages("QVK_Framework_SetDriverPermissions", "Errors");
    EXPECT_EQ(Count(errors, "\"" + drivers + "/Drivers/File.kext\" leads to \"" + fs::canonical(secret).string() +
                                "\" outside \"" + fs::canonical(app).string() + "\"; left unchanged"),
              3);
    EXPECT_EQ(Count(errors, "\"" + loop + "/Contents/Up\" leads back into a folder being walked"), 3);
    EXPECT_EQ(Count(errors, "\"" + linked + "/Contents/Copy\" has 2 links; left unchanged"), 3);
    EXPECT_EQ(Messages("LoadDrivers", "Errors"),
              ThreeTimes({"\"" + drivers + "/Drivers/Self.Quorvik-Package\" leads back into a folder being walked"}));
}

TEST_F(DriverLoading, PermissionsStopAtTheFirstEntryThatCannotBeFixed) {
    std::string folder = drivers + "/Drivers/Many.kext";
    for (const char* name : {"a", "b", "c", "d", "e"}) WriteFile(folder + "/" + name, name);
    fs::create_symlink("missing", folder + "/dangling");
    GiveToUser(folder);

    EXPECT_FALSE(QVK_Framework_SetDriverPermissions(folder));
    EXPECT_EQ(OwnerAndMode(folder), kRootFolder);
    bool beforeFailure = true;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().filename() == "dangling")
            beforeFailure = false;
        else
            EXPECT_EQ(OwnerAndMode(entry.path()), beforeFailure ? kRootFile : kUserFile) << entry.path();
    }
    fs::remove(folder + "/dangling");
    EXPECT_TRUE(QVK_Framework_SetDriverPermissions(folder));
    ExpectTree(folder, kRootFolder, kRootFile);
    // Paths outside the application folder are refused, not only links.
    EXPECT_FALSE(QVK_Framework_SetDriverPermissions(temp.path()));
    EXPECT_EQ(OwnerAndMode(temp.path()), "0:0 700");
}

TEST_F(DriverLoading, GetPathLooksInTheLauncherBundleAndPrefersGeneralFoldersToOlderReleases) {
    std::string own = bundle.MainBundlePath() + "/Contents/Drivers-Install";
    fs::create_directories(app + "/Contents/Drivers-Install/Drivers-x86/Modem.kext");
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), std::nullopt) << "the application's tree is not searched";
    // Each folder added wins over those before it.
    for (const char* folder : {"Drivers-10_3", "Drivers", "Drivers-10_5", "Drivers-x86", "Drivers-x86-10_5"}) {
        fs::create_directories(own + "/" + folder + "/Modem.kext");
        EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), own + "/" + folder + "/Modem.kext");
        EXPECT_EQ(Messages("FindDriverPath").back(), "Found \"" + own + "/" + folder + "/Modem.kext\"");
    }
    // Only folders count, and nothing below 10.3 is searched.
    WriteFile(own + "/Drivers-10_4/Plain.kext", "file");
    fs::create_directories(own + "/Drivers-10_2/Old.kext");
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("Plain.kext"), std::nullopt);
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("Old.kext"), std::nullopt);
}

}  // namespace
}  // namespace qvk::test
