// The device list's USB pairs and driver names, and finding a driver in the launcher bundle's own
// tree; the walk that loads drivers is checked end to end (test_driver_loading.sh).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "framework/drivers/device_list.h"
#include "framework/drivers/driver_permissions.h"
#include "framework/drivers/load_drivers.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

Value Usb(Value vendor, Value product) {
    return Value(Dictionary{{"USB", Dictionary{{"Vendor", vendor}, {"Product", product}}}});
}

TEST(DeviceList, ProductArraysEndAtTheFirstElementThatIsNoNumberAndEntriesOfOtherKindsAreLogged) {
    CapturingLogger logger;
    Array list{Usb(Value("011321"), Value(Array{Value("0x10"), Value(Data{{1}}), Value("0x11")})),
               Value("an entry that is no dictionary"), Usb(Value(Array{}), Value(7)), Usb(Value("-1"), Value(2))};
    EXPECT_THAT(QVK_Framework_DeviceListUSBPairs(list),
                ElementsAre(QVK_Framework_USBPair{0x12d1, 0x10}, QVK_Framework_USBPair{-1, 2}));
    EXPECT_EQ(std::count_if(logger.entries.begin(), logger.entries.end(), [](auto& e) { return e.type == "Errors"; }),
              3);
}

TEST(DeviceList, DriverNamesTaggedWithAReleaseCountOnlyOnThatSideOf10_9) {
    for (std::uint32_t version : {0x1058u, 0x108Fu, 0x1090u, 0x1097u}) {
        FakeGestalt gestalt(version);
        platform::Replace<platform::Gestalt> use(gestalt);
        std::vector<std::string> names;
        for (const char* entry : {"10.5::Old.kext", "10.9::New.kext", "10.5:Kept.kext", "10.9:Kept.kext", "Any.kext"})
            names.push_back(UseDriver(entry).value_or("-"));
        if (version < 0x1090)
            EXPECT_THAT(names, ElementsAre("Old.kext", "-", "10.5:Kept.kext", "-", "Any.kext")) << version;
        else
            EXPECT_THAT(names, ElementsAre("-", "New.kext", "-", "10.9:Kept.kext", "Any.kext")) << version;
    }
}

TEST(DriverPath, TheLauncherBundlesTreeIsSearchedGeneralFoldersFirstThenOlderReleasesDownTo10_3) {
    TempDir temp;
    FakeBundle bundle(temp.path() + "/Quorvik Connect.app/Launcher.app");
    platform::Replace<platform::Bundle> useBundle(bundle);
    FakeGestalt gestalt(0x1058);
    platform::Replace<platform::Gestalt> useGestalt(gestalt);
    std::string own = bundle.MainBundlePath() + "/Contents/Drivers-Install";
    std::filesystem::create_directories(temp.path() + "/Quorvik Connect.app/Contents/Drivers-Install/Drivers/A.kext");
    std::filesystem::create_directories(own + "/Drivers-10_2/A.kext");
    EXPECT_EQ(QVK_Framework_Drivers_GetPath("A.kext"), std::nullopt);
    // Each folder added wins over those before it.
    for (const char* folder : {"Drivers-10_3", "Drivers", "Drivers-10_5", "Drivers-x86", "Drivers-x86-10_5"}) {
        std::filesystem::create_directories(own + "/" + folder + "/A.kext");
        EXPECT_EQ(QVK_Framework_Drivers_GetPath("A.kext"), own + "/" + folder + "/A.kext");
    }
    EXPECT_FALSE(QVK_Framework_SetDriverPermissions(temp.path())) << "a path outside the application folder";
}

}  // namespace
}  // namespace qvk::test
