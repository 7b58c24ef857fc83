#include "framework/drivers/device_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

const std::string kSampleList = (std::filesystem::path(__FILE__).parent_path() /
                                 "../../sample/Quorvik Connect.app/Contents/Resources/NetworkBlocker.xml")
                                    .string();

Value Usb(Value vendor, Value product) {
    Dictionary usb;
    if (!vendor.IsNull()) usb["Vendor"] = std::move(vendor);
    if (!product.IsNull()) usb["Product"] = std::move(product);
    return Value(Dictionary{{"USB", Value(std::move(usb))}});
}

TEST(DeviceList, TheSampleFileGivesItsPairsInFileOrder) {
    std::optional<Array> list = QVK_Framework_ReadDeviceList(kSampleList);
    ASSERT_TRUE(list) << kSampleList;
    // An integer vendor with a hex product text; an octal vendor text with three products (hex,
    // hex, decimal); the entries without "USB" and without "Vendor" give nothing.
    EXPECT_THAT(QVK_Framework_DeviceListUSBPairs(*list),
                ElementsAre(QVK_Framework_USBPair{0x1e0e, 0x9001}, QVK_Framework_USBPair{0x12d1, 0x1001},
                            QVK_Framework_USBPair{0x12d1, 0x14ac}, QVK_Framework_USBPair{0x12d1, 0x141a}));
}

TEST(DeviceList, ProductArraysEndAtTheFirstElementThatIsNoNumber) {
    CapturingLogger logger;
    Array list{
        Usb(Value("4817"), Value(Array{Value("0x10"), Value(), Value("0x11")})),
        Usb(Value(1), Value(Array{Value(2), Value(Data{{1}}), Value(3)})),
        Value("an entry that is no dictionary"),
        Usb(Value(), Value("0x1234")),
        Usb(Value("0x12d1"), Value()),
        Value(Dictionary{{"Drivers", Value(Array{Value("A.kext")})}}),
        Usb(Value(Array{}), Value(7)),
        Usb(Value("-1"), Value("0x100000002")),
    };
    EXPECT_THAT(
        QVK_Framework_DeviceListUSBPairs(list),
        ElementsAre(QVK_Framework_USBPair{4817, 0x10}, QVK_Framework_USBPair{1, 2}, QVK_Framework_USBPair{-1, 2}));
    // The data element, the text entry and the array vendor are reported as errors.
    EXPECT_EQ(std::count_if(logger.entries.begin(), logger.entries.end(), [](auto& e) { return e.type == "Errors"; }),
              3);
}

TEST(DeviceList, AFileThatIsNoArrayReadsAsNoList) {
    TempDir dir;
    EXPECT_FALSE(QVK_Framework_ReadDeviceList(dir.path() + "/missing.xml"));
    WriteFile(dir.path() + "/dict.xml", "<plist version=\"1.0\"><dict><key>USB</key><string>x</string></dict></plist>");
    EXPECT_FALSE(QVK_Framework_ReadDeviceList(dir.path() + "/dict.xml"));
    WriteFile(dir.path() + "/junk.xml", "not a property list");
    EXPECT_FALSE(QVK_Framework_ReadDeviceList(dir.path() + "/junk.xml"));
}

TEST(DeviceListDeathTest, AMalformedNumberTextEndsTheProcess) {
    Array list{Usb(Value("0x12d1"), Value(Array{Value("0x1001"), Value("0x1003 ")}))};
    EXPECT_DEATH(QVK_Framework_DeviceListUSBPairs(list), "\\*End=='\\\\0'.*StringToNumber, line 22");
}

TEST(DeviceList, UseDriverChoosesByRelease) {
    auto names = [](std::uint32_t version) {
        FakeGestalt gestalt(version);
        platform::Replace<platform::Gestalt> use(gestalt);
        std::vector<std::string> out;
        for (const char* entry :
             {"10.5::Old.kext", "10.9::New.kext", "10.5:Kept.kext", "10.9:Kept.kext", "Any.kext", "10.5Plain.kext"})
            out.push_back(UseDriver(entry).value_or("-"));
        return out;
    };
    EXPECT_THAT(names(0x1058), ElementsAre("Old.kext", "-", "10.5:Kept.kext", "-", "Any.kext", "10.5Plain.kext"));
    EXPECT_THAT(names(0x108F), ElementsAre("Old.kext", "-", "10.5:Kept.kext", "-", "Any.kext", "10.5Plain.kext"));
    EXPECT_THAT(names(0x1090), ElementsAre("-", "New.kext", "-", "10.9:Kept.kext", "Any.kext", "10.5Plain.kext"));
    EXPECT_THAT(names(0x1097), ElementsAre("-", "New.kext", "-", "10.9:Kept.kext", "Any.kext", "10.5Plain.kext"));
}

}  // namespace
}  // namespace qvk::test
