#include "framework/ports/port_module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_usb.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

// Records what the base hands it: per batch the number of services and whether it came while the
// notifications were being armed.
class RecordingModule : public QVK_Framework_Port_Module {
public:
    std::optional<Array> dictionaries;
    int starts = 0;
    bool drain = true;
    std::vector<std::string> calls;

    std::optional<Array> QVK_Framework_PortModule_MatchingDictionaries() override {
        ++starts;
        return dictionaries;
    }
    void QVK_Framework_PortModule_Publish(platform::UsbIterator iterator) override { Record("publish", iterator); }
    void QVK_Framework_PortModule_Terminate(platform::UsbIterator iterator) override { Record("terminate", iterator); }

private:
    void Record(const std::string& what, platform::UsbIterator iterator) {
        auto& usb = platform::Use<platform::Usb>();
        int count = 0;
        if (drain)
            for (platform::UsbService s; (s = usb.IteratorNext(iterator)); ++count) usb.ObjectRelease(s);
        calls.push_back(what + " " + std::to_string(count) + (IsInitializing() ? " initializing" : ""));
    }
};

Dictionary Device(int vendor, int product) {
    return {{platform::kUsbVendorKey, Value(vendor)}, {platform::kUsbProductKey, Value(product)}};
}

class PortModuleTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (auto* slot : Modules) EXPECT_EQ(slot, nullptr) << "a test left a module registered";
    }
    FakeUsb usb;
    platform::Replace<platform::Usb> useUsb{usb};
};

TEST_F(PortModuleTest, ModulesTakeTheFirstHoleAndTheStartAndTheRemovalScanStopAtAHole) {
    auto a = std::make_unique<RecordingModule>();
    auto b = std::make_unique<RecordingModule>();
    EXPECT_EQ(Modules[0], a.get());
    EXPECT_EQ(Modules[1], b.get());

    a.reset();
    EXPECT_EQ(Modules[0], nullptr);
    EXPECT_EQ(Modules[1], b.get());
    auto c = std::make_unique<RecordingModule>();
    EXPECT_EQ(Modules[0], c.get()) << "the new module fills the hole";

    // The class start arms the modules up to the first empty slot, and answers false unless that
    // was all twelve; behind a hole in slot 0 nothing is started.
    EXPECT_FALSE(QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start());
    EXPECT_EQ(c->starts + b->starts, 2);
    c.reset();
    EXPECT_FALSE(QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start());
    EXPECT_EQ(b->starts, 1);

    // With slot 0 empty, the module in slot 1 stands behind a hole and is not found on removal.
    QVK_Framework_Port_Module* behind = b.get();
    b.reset();
    EXPECT_EQ(Modules[1], behind);
    Modules[1] = nullptr;

    std::vector<std::unique_ptr<RecordingModule>> twelve;
    for (int i = 0; i < 12; ++i) twelve.push_back(std::make_unique<RecordingModule>());
    EXPECT_TRUE(QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start());
    for (auto& m : twelve) EXPECT_EQ(m->starts, 1);
    // Last first: removing slot 0 first would leave the others behind a hole.
    while (!twelve.empty()) twelve.pop_back();
}

TEST_F(PortModuleTest, AThirteenthModuleIsAnAssertion) {
    EXPECT_DEATH(
        {
            std::vector<std::unique_ptr<RecordingModule>> modules;
            for (int i = 0; i < 13; ++i) modules.push_back(std::make_unique<RecordingModule>());
        },
        "Assertion failed: \\(NO\\), function -\\[QVK_Framework_Port_Module init\\], file "
        "\\.\\./\\.\\./Framework/Framework/Port_Module, line 78\\.");
}

TEST_F(PortModuleTest, ArmingDeliversPresentServicesWhileInitializingAndSkipsFailedDictionaries) {
    CapturingLogger logger;
    usb.AddPresent(Device(0x12d1, 0x1001));
    usb.AddPresent(Device(0x12d1, 0x1001));
    // The second dictionary gets no port, the third no terminate notification, the fifth no
    // publish notification, the sixth no run-loop source.
    usb.failPortAt = 1;
    usb.failTerminateAt = 1;
    usb.failPublishAt = 2;
    usb.failSourceAt = 4;
    auto module = std::make_unique<RecordingModule>();
    module->dictionaries = Array{UsbMatching(0x12d1, 0x1001), UsbMatching(1, 1), UsbMatching(2, 2),
                                 UsbMatching(3, 3),           UsbMatching(4, 4), UsbMatching(5, 5)};

    EXPECT_TRUE(module->QVK_Framework_PortModule_Start());
    EXPECT_FALSE(module->IsInitializing());
    EXPECT_THAT(module->calls,
                ElementsAre("terminate 0 initializing", "publish 2 initializing", "terminate 0 initializing",
                            "publish 0 initializing", "terminate 0 initializing"));

    // Terminate, then publish, for the first and the fourth dictionary; terminate only for the fifth.
    ASSERT_EQ(usb.armed.size(), 5u);
    EXPECT_EQ(usb.armed[0].type, platform::kTerminatedNotification);
    EXPECT_EQ(usb.armed[1].type, platform::kPublishNotification);
    EXPECT_EQ(usb.armed[1].matching, UsbMatching(0x12d1, 0x1001));
    EXPECT_EQ(usb.armed[3].matching, UsbMatching(3, 3));
    EXPECT_EQ(usb.armed[4].matching, UsbMatching(4, 4)) << "the last dictionary's terminate notification";
    for (const auto& a : usb.armed) EXPECT_EQ(a.refcon, module.get());
    EXPECT_TRUE(usb.armed[0].portAlive() && usb.armed[3].portAlive());
    EXPECT_FALSE(usb.armed[4].portAlive()) << "a failed publish arming destroys the port and its terminate";

    EXPECT_THAT(logger.LogLines(),
                ElementsAre("../../Framework/Framework/Port_Module:180(Trace): -[QVK_Framework_Port_Module "
                            "QVK_Framework_PortModule_AddNotification]: " +
                            OneLine(Value(*module->dictionaries).Description())));

    // The ports live with the module.
    module.reset();
    EXPECT_FALSE(usb.armed[0].portAlive());
}

TEST_F(PortModuleTest, CallbacksReachTheModuleAndTheBaseDrainsAndReleases) {
    CapturingLogger logger;
    QVK_Framework_Port_Module base;
    EXPECT_TRUE(base.QVK_Framework_PortModule_Start());
    EXPECT_TRUE(usb.armed.empty());
    EXPECT_EQ(logger.entries.at(0).message, "(null)");

    platform::UsbIterator published = usb.Batch({Device(1, 2), Device(3, 4)});
    PublishCallback(&base, published);
    EXPECT_FALSE(usb.Pending(published));
    EXPECT_EQ(usb.released.size(), 2u);
    platform::UsbIterator terminated = usb.Batch({Device(1, 2)});
    TerminateCallback(&base, terminated);
    EXPECT_FALSE(usb.Pending(terminated));
    EXPECT_EQ(usb.released.size(), 3u);
    EXPECT_FALSE(EmptyIterator(terminated));

    RecordingModule sub;
    sub.drain = false;
    PublishCallback(&sub, usb.Batch({Device(1, 2)}));
    TerminateCallback(&sub, usb.Batch({}));
    EXPECT_THAT(sub.calls, ElementsAre("publish 0", "terminate 0"));
}

}  // namespace
}  // namespace qvk::test
