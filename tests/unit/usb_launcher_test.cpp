#include "launcher/usb_launcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "fake_usb.h"
#include "framework/drivers/device_list.h"
#include "launcher/launch.h"
#include "platform/clock.h"
#include "platform/property_list.h"
#include "platform/shell.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::filesystem::path kSampleApp =
    std::filesystem::path(__FILE__).parent_path() / "../../sample/Quorvik Mobile Partner.app";

class SteppingClock : public platform::Clock {
public:
    double Now() override { return now += 10; }
    double now = 0;
};

// A text as the main logger keeps it on one line.
std::string OneLine(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
}

std::string Key(const Value& matching) {
    std::int64_t v = 0, p = 0;
    matching[platform::kUsbVendorKey].GetInteger(v);
    matching[platform::kUsbProductKey].GetInteger(p);
    return Format("%04x/%04x", v, p);
}

// The sample application copied into a temporary folder, with an empty Launcher.app inside.
class USBLauncherTest : public ::testing::Test {
protected:
    USBLauncherTest() {
        std::filesystem::copy(kSampleApp, app, std::filesystem::copy_options::recursive);
        std::filesystem::create_directories(app + "/Launcher.app");
        ForgetPreviousLaunchForTesting();
    }
    ~USBLauncherTest() override {
        MyModule.reset();
        ForgetPreviousLaunchForTesting();
    }

    TempDir dir;
    std::string app = dir.path() + "/Quorvik Mobile Partner.app";
    FakeBundle bundle{app + "/Launcher.app"};
    FakeHome home{dir.path()};
    FakeUsb usb;
    FakeRunLoop loop;
    RecordingShell shell;
    SteppingClock clock;
    platform::Replace<platform::Bundle> useBundle{bundle};
    platform::Replace<platform::Home> useHome{home};
    platform::Replace<platform::Usb> useUsb{usb};
    platform::Replace<platform::RunLoop> useLoop{loop};
    platform::Replace<platform::Shell> useShell{shell};
    platform::Replace<platform::Clock> useClock{clock};
};

TEST_F(USBLauncherTest, BuiltInRowsComeFirstAndEveryPairOnce) {
    CapturingLogger logger;
    QVK_Framework_Port_Module_USBLauncher module;
    std::optional<Array> dictionaries = module.QVK_Framework_PortModule_MatchingDictionaries();
    ASSERT_TRUE(dictionaries);
    std::vector<std::string> keys;
    for (const Value& d : *dictionaries) keys.push_back(Key(d));
    ASSERT_EQ(keys.size(), Devices.size() + 3);
    for (std::size_t i = 0; i < Devices.size(); ++i)
        EXPECT_EQ(keys[i], Format("%04x/%04x", Devices[i].Vendor, Devices[i].Product));
    // The file's 12d1/1001 is a built-in row and is not added again.
    EXPECT_THAT(std::vector<std::string>(keys.begin() + Devices.size(), keys.end()),
                ElementsAre("1e0e/9001", "12d1/14ac", "12d1/141a"));
    EXPECT_EQ((*dictionaries)[0], Value(Dictionary{{"IOProviderClass", Value("IOUSBDevice")},
                                                   {"idVendor", Value(0x0AF0)},
                                                   {"idProduct", Value(0x6971)}}));

    std::string path = app + "/Launcher.app/../Contents/Resources/NetworkBlocker.xml";
    ASSERT_EQ(logger.entries.size(), 1u);
    EXPECT_EQ(logger.entries[0].line, 111u);
    EXPECT_EQ(logger.entries[0].file, "USBLauncher");
    EXPECT_EQ(logger.entries[0].function,
              "-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_MatchingDictionaries]");
    EXPECT_EQ(logger.entries[0].message,
              path + " -> " +
                  OneLine(platform::ReadPropertyList(app + "/Contents/Resources/NetworkBlocker.xml")->Description()));

    std::filesystem::remove(app + "/Contents/Resources/NetworkBlocker.xml");
    EXPECT_EQ(module.QVK_Framework_PortModule_MatchingDictionaries()->size(), Devices.size());
    EXPECT_EQ(logger.entries.at(1).message, path + " -> (null)");
}

TEST_F(USBLauncherTest, AddMatchingDictKeysPairsByLowerCaseHex) {
    QVK_Framework_Port_Module_USBLauncher module;
    Array dictionaries;
    std::unordered_set<std::string> armed;
    module.AddMatchingDict(dictionaries, armed, 0x12D1, 0x1001);
    module.AddMatchingDict(dictionaries, armed, 4817, 4097);
    module.AddMatchingDict(dictionaries, armed, 0x5, 0x1ABCD);
    EXPECT_EQ(dictionaries.size(), 2u);
    EXPECT_EQ(armed, (std::unordered_set<std::string>{"12d1/1001", "0005/1abcd"}));
}

TEST_F(USBLauncherTest, ABatchLogsEachReadableDeviceAndSchedulesOneLaunch) {
    CapturingLogger logger;
    QVK_Framework_Port_Module_USBLauncher module;
    Dictionary noProduct{{"idVendor", Value(0x12d1)}};
    platform::IoIterator batch = usb.Batch({{{"idVendor", Value(0x12d1)}, {"idProduct", Value(0x1001)}},
                                            noProduct,
                                            {{"idVendor", Value(0x19d2)}, {"idProduct", Value(0x0031)}}});
    PublishCallback(&module, batch);
    EXPECT_FALSE(usb.Pending(batch));
    EXPECT_EQ(usb.released.size(), 3u) << "every service is released, the unreadable one too";
    EXPECT_THAT(logger.MessagesOf("-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_Publish:]"),
                ElementsAre("<none>", "Vendor 0x12d1 Product 0x1001", "Vendor 0x19d2 Product 0x0031"));
    EXPECT_THAT(shell.commands, IsEmpty()) << "the launch waits for the run loop";
    ASSERT_EQ(loop.deferred.size(), 1u);
    loop.RunDeferred();
    EXPECT_THAT(shell.commands, ElementsAre("/usr/bin/open -a \"" + app + "\""));

    // Nothing readable, nothing scheduled.
    PublishCallback(&module, usb.Batch({noProduct, {}}));
    PublishCallback(&module, usb.Batch({}));
    EXPECT_THAT(loop.deferred, IsEmpty());
}

TEST_F(USBLauncherTest, ALaunchScheduledByADestroyedModuleDoesNothing) {
    auto module = std::make_unique<QVK_Framework_Port_Module_USBLauncher>();
    PublishCallback(module.get(), usb.Batch({{{"idVendor", Value(1)}, {"idProduct", Value(2)}}}));
    module.reset();
    loop.RunDeferred();
    EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(USBLauncherTest, UseCreatesTheModuleOnceAndTheClassStartArmsItsPairs) {
    usb.AddPresent({{"idVendor", Value(0x1e0e)}, {"idProduct", Value(0x9001)}});
    EXPECT_TRUE(QVK_Framework_Use_USBLauncher());
    QVK_Framework_Port_Module_USBLauncher* first = MyModule.get();
    EXPECT_TRUE(QVK_Framework_Use_USBLauncher());
    EXPECT_EQ(MyModule.get(), first);
    EXPECT_EQ(Modules[0], first);
    EXPECT_EQ(Modules[1], nullptr);

    EXPECT_FALSE(QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start());
    EXPECT_EQ(usb.armed.size(), 2 * (Devices.size() + 3));
    EXPECT_EQ(loop.deferred.size(), 1u) << "the modem that was present asks for a launch";
    MyModule.reset();
    EXPECT_EQ(Modules[0], nullptr);
}

}  // namespace
}  // namespace qvk::test
