// Finding a driver in the launcher bundle's own tree, and the permission fix's bound; the walk that
// loads drivers is checked end to end (test_driver_loading.sh).
#include <gtest/gtest.h>

#include <filesystem>

#include "framework/drivers/driver_permissions.h"
#include "framework/drivers/load_drivers.h"
#include "test_support.h"

namespace qvk::test {
namespace {

namespace fs = std::filesystem;

TEST(DriverPath, TheLauncherBundlesTreeIsSearchedGeneralFoldersFirstThenOlderReleasesDownTo10_3) {
    TempDir temp;
    FakeBundle bundle(temp.path() + "/Quorvik Connect.app/Launcher.app");
    platform::Replace<platform::Bundle> useBundle(bundle);
    FakeGestalt gestalt(0x1058);
    platform::Replace<platform::Gestalt> useGestalt(gestalt);
    std::string own = bundle.MainBundlePath() + "/Contents/Drivers-Install";
    fs::create_directories(temp.path() + "/Quorvik Connect.app/Contents/Drivers-Install/Drivers-x86/Modem.kext");
    fs::create_directories(own + "/Drivers-10_2/Modem.kext");
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), std::nullopt);
    // Each folder added wins over those before it.
    for (const char* folder : {"Drivers-10_3", "Drivers", "Drivers-10_5", "Drivers-x86", "Drivers-x86-10_5"}) {
        fs::create_directories(own + "/" + folder + "/Modem.kext");
        EXPECT_EQ(QVK_Framework_Drivers_GetPath("Modem.kext"), own + "/" + folder + "/Modem.kext");
    }
    EXPECT_FALSE(QVK_Framework_SetDriverPermissions(temp.path())) << "a path outside the application folder";
}

}  // namespace
}  // namespace qvk::test
