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

std::string Key(const Value& matching) {
    std::int64_t v = 0, p = 0;
    matching[platform::kUsbVendorKey].GetInteger(v);
    matching[platform::kUsbProductKey].GetInteger(p);
    return Format("%04x/%04x", v, p);
}

// The sample application copied into a temporary folder, with an empty Launcher.app inside.
class USBLauncherTest : public ::testing::Test {
protected:
    USBLauncherTest() { ForgetPreviousLaunchForTesting(); }
    ~USBLauncherTest() override {
        MyModule.reset();
        ForgetPreviousLaunchForTesting();
    }

    TempDir dir;
    std::string app = CopySampleApp(dir.path());
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

    std::string list = app + "/Contents/Resources/NetworkBlocker.xml";
    std::string logged =
        "USBLauncher:111(Trace): -[QVK_Framework_Port_Module_USBLauncher "
        "QVK_Framework_PortModule_MatchingDictionaries]: " +
        app + "/Launcher.app/../Contents/Resources/NetworkBlocker.xml -> ";
    EXPECT_THAT(logger.LogLines(), ElementsAre(logged + OneLine(platform::ReadPropertyList(list)->Description())));
    std::filesystem::remove(list);
    EXPECT_EQ(module.QVK_Framework_PortModule_MatchingDictionaries()->size(), Devices.size());
    EXPECT_EQ(logger.LogLines().at(1), logged + "(null)");

    // The pair keys are lower-case hexadecimal with at least four digits.
    Array more;
    std::unordered_set<std::string> armed;
    module.AddMatchingDict(more, armed, 0x12D1, 0x1001);
    module.AddMatchingDict(more, armed, 4817, 4097);
    module.AddMatchingDict(more, armed, 0x5, 0x1ABCD);
    EXPECT_EQ(more.size(), 2u);
    EXPECT_EQ(armed, (std::unordered_set<std::string>{"12d1/1001", "0005/1abcd"}));
}

TEST_F(USBLauncherTest, ABatchLogsEachReadableDeviceAndSchedulesOneLaunch) {
    CapturingLogger logger;
    auto module = std::make_unique<QVK_Framework_Port_Module_USBLauncher>();
    Dictionary noProduct{{"idVendor", Value(0x12d1)}};
    platform::UsbIterator batch = usb.Batch({{{"idVendor", Value(0x12d1)}, {"idProduct", Value(0x1001)}},
                                             noProduct,
                                             {{"idVendor", Value(0x19d2)}, {"idProduct", Value(0x0031)}}});
    PublishCallback(module.get(), batch);
    EXPECT_FALSE(usb.Pending(batch));
    EXPECT_EQ(usb.released.size(), 3u) << "every service is released, the unreadable one too";
    EXPECT_THAT(logger.MessagesOf("-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_Publish:]"),
                ElementsAre("<none>", "Vendor 0x12d1 Product 0x1001", "Vendor 0x19d2 Product 0x0031"));
    EXPECT_THAT(shell.commands, IsEmpty()) << "the launch waits for the run loop";
    ASSERT_EQ(loop.deferred.size(), 1u);
    loop.RunDeferred();
    EXPECT_THAT(shell.commands, ElementsAre("/usr/bin/open -a \"" + app + "\""));

    // Nothing readable, nothing scheduled.
    PublishCallback(module.get(), usb.Batch({noProduct, {}}));
    PublishCallback(module.get(), usb.Batch({}));
    EXPECT_THAT(loop.deferred, IsEmpty());

    // A launch scheduled by a module destroyed since does nothing.
    PublishCallback(module.get(), usb.Batch({{{"idVendor", Value(1)}, {"idProduct", Value(2)}}}));
    module.reset();
    loop.RunDeferred();
    EXPECT_EQ(shell.commands.size(), 1u);
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
