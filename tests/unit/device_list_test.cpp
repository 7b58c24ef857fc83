#include "framework/drivers/device_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using Pair = QVK_Framework_USBPair;

Value Usb(Value vendor, Value product) {
    Dictionary usb;
    if (!vendor.IsNull()) usb["Vendor"] = std::move(vendor);
    if (!product.IsNull()) usb["Product"] = std::move(product);
    return Value(Dictionary{{"USB", Value(std::move(usb))}});
}

TEST(DeviceList, PairsInFileOrderProductArraysEndingAtTheFirstElementThatIsNoNumber) {
    CapturingLogger logger;
    Array list{
        Usb(Value("011321"), Value(Array{Value("0x10"), Value(), Value("0x11")})),
        Usb(Value(1), Value(Array{Value(2), Value(Data{{1}}), Value(3)})),
        Value("an entry that is no dictionary"),
        Usb(Value(), Value("0x1234")),
        Usb(Value("0x12d1"), Value()),
        Value(Dictionary{{"Drivers", Value(Array{Value("A.kext")})}}),
        Usb(Value(Array{}), Value(7)),
        Usb(Value("-1"), Value("0x100000002")),
    };
    EXPECT_THAT(QVK_Framework_DeviceListUSBPairs(list), ElementsAre(Pair{0x12d1, 0x10}, Pair{1, 2}, Pair{-1, 2}));
    // The data element, the text entry and the array vendor.
    EXPECT_EQ(std::count_if(logger.entries.begin(), logger.entries.end(), [](auto& e) { return e.type == "Errors"; }),
              3);

    TempDir dir;
    WriteFile(dir.path() + "/dict.xml", "<plist version=\"1.0\"><dict><key>USB</key><string>x</string></dict></plist>");
    EXPECT_FALSE(QVK_Framework_ReadDeviceList(dir.path() + "/dict.xml")) << "a list is an array";
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

}  // namespace
}  // namespace qvk::test
