// Opening a USB device through a scripted plug-in seam: the retry budget, the short grace for an
// unsupported service, the log lines with their codes, and who releases what. Sleeps are recorded,
// never waited for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/ports/usb_device.h"
#include "platform/sleeper.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Eq;
using namespace platform;

class RecordingSleeper : public Sleeper {
public:
    void Usleep(std::uint32_t microseconds) override { sleeps.push_back(microseconds); }
    std::vector<std::uint32_t> sleeps;
};

// What one attempt answers: the creation's code and whether it gives a plug-in, then the query's.
struct Attempt {
    IoReturn created = kIOReturnSuccess;
    bool givesPlugIn = true;
    IoReturn queried = kIOReturnSuccess;
    bool givesDevice = true;
};

class ScriptedAccess : public UsbDeviceAccess {
public:
    // Attempts past the script's end answer as its last entry does.
    explicit ScriptedAccess(std::vector<Attempt> script) : script_(std::move(script)) {}

    IoReturn CreatePlugInInterfaceForService(UsbService service, std::unique_ptr<UsbPlugInInterface>& plugIn) override {
        services.push_back(service);
        const Attempt& a = script_[std::min(services.size(), script_.size()) - 1];
        if (a.givesPlugIn) plugIn = std::make_unique<PlugIn>(*this, a);
        return a.created;
    }

    std::vector<UsbService> services;
    int plugInsAlive = 0, devicesAlive = 0;

private:
    class Device : public UsbDeviceInterface {
    public:
        explicit Device(ScriptedAccess& owner) : owner_(owner) { ++owner_.devicesAlive; }
        ~Device() override { --owner_.devicesAlive; }
        IoReturn GetDeviceVendor(std::uint16_t& v) override { return v = 0x12d1, kIOReturnSuccess; }
        IoReturn GetDeviceProduct(std::uint16_t& p) override { return p = 0x1001, kIOReturnSuccess; }

    private:
        ScriptedAccess& owner_;
    };
    class PlugIn : public UsbPlugInInterface {
    public:
        PlugIn(ScriptedAccess& owner, Attempt a) : owner_(owner), attempt_(a) { ++owner_.plugInsAlive; }
        ~PlugIn() override { --owner_.plugInsAlive; }
        IoReturn QueryDeviceInterface(std::unique_ptr<UsbDeviceInterface>& device) override {
            if (attempt_.givesDevice) device = std::make_unique<Device>(owner_);
            return attempt_.queried;
        }

    private:
        ScriptedAccess& owner_;
        Attempt attempt_;
    };
    std::vector<Attempt> script_;
};

struct Outcome {
    QVK_Framework_USB_Device device;
    std::vector<std::string> log;  // "line message"
    std::vector<std::uint32_t> sleeps;
    std::size_t attempts;
};

Outcome Open(ScriptedAccess& access, UsbService service = UsbService(0x2f03)) {
    RecordingSleeper sleeper;
    Replace<UsbDeviceAccess> useAccess(access);
    Replace<Sleeper> useSleeper(sleeper);
    CapturingLogger logger;
    Outcome run;
    run.device = QVK_Framework_USB_GetDevice(service);
    for (const auto& e : logger.entries) {
        EXPECT_EQ(e.function, "QVK_Framework_USB_GetDevice");
        EXPECT_EQ(e.file, "Apple/../../../Framework/Library/USB/GetDevice");
        EXPECT_EQ(e.type, "Trace");
        run.log.push_back(std::to_string(e.line) + " " + e.message.value_or("<none>"));
    }
    run.sleeps = sleeper.sleeps;
    run.attempts = access.services.size();
    return run;
}

TEST(UsbGetDevice, ASettlingDeviceAnswersAtTheThirdAttempt) {
    ScriptedAccess access(
        {{.created = kIOReturnNoDevice, .givesPlugIn = false}, {.queried = kIOReturnError, .givesDevice = false}, {}});
    Outcome run = Open(access);
    ASSERT_TRUE(run.device);
    std::uint16_t vendor = 0;
    EXPECT_EQ(run.device->GetDeviceVendor(vendor), kIOReturnSuccess);
    EXPECT_EQ(vendor, 0x12d1);
    EXPECT_THAT(access.services, Each(Eq(UsbService(0x2f03))));
    EXPECT_THAT(run.log, ElementsAre("21 <none>", "47 IOCreatePlugInInterfaceForService -> e00002c0",
                                     "43 QueryInterface -> e00002bc"));
    EXPECT_THAT(run.sleeps, ElementsAre(100000u, 100000u)) << "about 200 ms before the answer";
    EXPECT_EQ(access.plugInsAlive, 0) << "each plug-in is released once it was asked";
    EXPECT_EQ(access.devicesAlive, 1);

    QVK_Framework_USB_ReleaseDevice(std::move(run.device));
    EXPECT_EQ(access.devicesAlive, 0);
    QVK_Framework_USB_ReleaseDevice(nullptr);
}

TEST(UsbGetDevice, GivesUpAfterFortyAttemptsAHundredMillisecondsApart) {
    ScriptedAccess busy({{.created = kIOReturnBusy, .givesPlugIn = false}});
    Outcome run = Open(busy);
    EXPECT_FALSE(run.device);
    EXPECT_EQ(run.attempts, 40u);
    EXPECT_EQ(run.sleeps, std::vector<std::uint32_t>(40, 100000u));
    ASSERT_EQ(run.log.size(), 42u);
    EXPECT_EQ(run.log[1], "47 IOCreatePlugInInterfaceForService -> e00002d5");
    EXPECT_EQ(run.log.back(), "56 failed");

    // A failing query is retried just the same, its plug-in released every time.
    ScriptedAccess refused({{.queried = kIOReturnNotPrivileged, .givesDevice = false}});
    run = Open(refused);
    EXPECT_FALSE(run.device);
    EXPECT_EQ(run.attempts, 40u);
    EXPECT_EQ(run.log[1], "43 QueryInterface -> e00002c1");
    EXPECT_EQ(refused.plugInsAlive, 0);
}

TEST(UsbGetDevice, AnUnsupportedServiceGetsFiveAttemptsFromWhereItWasSeen) {
    Attempt unsupported{.created = kIOReturnUnsupported, .givesPlugIn = false};
    Attempt gone{.created = kIOReturnNoDevice, .givesPlugIn = false};

    ScriptedAccess fromTheStart({unsupported});
    Outcome run = Open(fromTheStart);
    EXPECT_FALSE(run.device);
    EXPECT_EQ(run.attempts, 5u);
    EXPECT_EQ(run.sleeps.size(), 5u);
    EXPECT_THAT(run.log, ElementsAre("21 <none>", "47 IOCreatePlugInInterfaceForService -> e00002c7",
                                     "47 IOCreatePlugInInterfaceForService -> e00002c7",
                                     "47 IOCreatePlugInInterfaceForService -> e00002c7",
                                     "47 IOCreatePlugInInterfaceForService -> e00002c7",
                                     "47 IOCreatePlugInInterfaceForService -> e00002c7", "56 failed"));

    // Seen at the third attempt: that one and four more.
    ScriptedAccess third({gone, gone, unsupported});
    EXPECT_EQ(Open(third).attempts, 7u);
    // A device that is no longer unsupported still has only the grace that was left.
    ScriptedAccess thenGone({unsupported, gone});
    EXPECT_EQ(Open(thenGone).attempts, 5u);
    // With only 4 attempts left the count is not raised.
    std::vector<Attempt> late(36, gone);
    late.push_back(unsupported);
    ScriptedAccess at37(late);
    EXPECT_EQ(Open(at37).attempts, 40u);
    // And a device that answers within the grace is taken.
    ScriptedAccess answers({unsupported, unsupported, {}});
    Outcome answered = Open(answers);
    EXPECT_TRUE(answered.device);
    EXPECT_EQ(answered.attempts, 3u);
}

}  // namespace
}  // namespace qvk::test
