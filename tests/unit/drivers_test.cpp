// The device list's USB pairs and driver names; the walk that loads drivers is checked end to end
// (test_driver_loading.sh).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/drivers/device_list.h"
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
    EXPECT_EQ(logger.MessagesOf("QVK_Framework_DeviceListUSBPairs").size(), 3u) << "each damaged entry is logged";
}

TEST(DeviceList, DriverNamesTaggedWithAReleaseCountOnlyOnThatSideOf10_9) {
    for (std::uint32_t version : {0x108Fu, 0x1090u}) {
        FakeGestalt gestalt(version);
        platform::Replace<platform::Gestalt> use(gestalt);
        std::vector<std::string> names;
        for (const char* entry : {"10.5::Old.kext", "10.9::New.kext", "10.5:Kept.kext", "10.9:Kept.kext", "Any.kext"})
            names.push_back(UseDriver(entry).value_or("-"));
        EXPECT_THAT(names, version < 0x1090 ? ElementsAre("Old.kext", "-", "10.5:Kept.kext", "-", "Any.kext")
                                            : ElementsAre("-", "New.kext", "-", "10.9:Kept.kext", "Any.kext"));
    }
}

}  // namespace
}  // namespace qvk::test
