// The libudev registry on a simulated bus: present devices at arming, later ones through the run
// loop, the iterator rule, batches, and one monitor for many pairs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "../../unit/test_support.h"
#include "platform/format.h"
#include "platform/run_loop.h"
#include "platform/service.h"
#include "platform/usb.h"
#include "simulated_usb_bus.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

platform::Usb& Registry() { return platform::Use<platform::Usb>(); }

// Records each batch as "vvvv/pppp ..." of the services it held.
struct Recorder {
    bool drain = true;
    std::vector<std::string> batches;

    static void Callback(void* refcon, platform::UsbIterator iterator) {
        auto* self = static_cast<Recorder*>(refcon);
        self->batches.push_back(self->drain ? Drain(iterator) : "(not drained)");
    }
    static std::string Drain(platform::UsbIterator iterator) {
        std::string batch;
        while (platform::UsbService s = Registry().IteratorNext(iterator)) {
            auto v = Registry().RegistryEntryCreateCFProperty(s, platform::kUsbVendorKey);
            auto p = Registry().RegistryEntryCreateCFProperty(s, platform::kUsbProductKey);
            std::int64_t vendor = -1, product = -1;
            if (v) v->GetInteger(vendor);
            if (p) p->GetInteger(product);
            if (!batch.empty()) batch += ' ';
            batch += Format("%04x/%04x", vendor, product);
            Registry().ObjectRelease(s);
        }
        return batch;
    }
};

bool Serve(const std::function<bool()>& done) { return platform::Use<platform::RunLoop>().RunUntil(done, 5.0); }

int OpenSockets() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error).string().starts_with("socket:")) ++count;
    }
    return count;
}

TEST(UsbRegistry, PresentDevicesComeWithTheIteratorAndLaterOnesThroughTheRunLoopInBatches) {
    SimulatedUsbBus bus;
    std::string first = bus.Plug("first", 0x12d1, 0x1001);
    bus.Plug("other", 0x0af0, 0x6971);

    auto port = Registry().NotificationPortCreate();
    ASSERT_TRUE(port);
    ASSERT_TRUE(port->AddSourceToMainRunLoop());
    Recorder published, terminated;
    platform::UsbIterator it;
    ASSERT_TRUE(port->AddMatchingNotification(platform::kPublishNotification, UsbMatching(0x12d1, 0x1001),
                                              Recorder::Callback, &published, it));
    EXPECT_EQ(Recorder::Drain(it), "12d1/1001") << "only the matching device that is present";
    ASSERT_TRUE(port->AddMatchingNotification(platform::kTerminatedNotification, UsbMatching(0x12d1, 0x1001),
                                              Recorder::Callback, &terminated, it));
    EXPECT_EQ(Recorder::Drain(it), "");

    // Devices that arrive together are one batch.
    bus.Plug("second", 0x12d1, 0x1001);
    bus.Plug("third", 0x12d1, 0x1001);
    ASSERT_TRUE(Serve([&] { return !published.batches.empty(); }));
    EXPECT_THAT(published.batches, ElementsAre("12d1/1001 12d1/1001"));

    // The ids of a removed device are still known, though its sysfs folder is gone.
    bus.Unplug(first);
    ASSERT_TRUE(Serve([&] { return !terminated.batches.empty(); }));
    EXPECT_THAT(terminated.batches, ElementsAre("12d1/1001"));
    EXPECT_THAT(published.batches, ElementsAre("12d1/1001 12d1/1001"));
}

TEST(UsbRegistry, AHandlerThatDoesNotDrainIsNotCalledAgainUntilItDrains) {
    SimulatedUsbBus bus;
    auto port = Registry().NotificationPortCreate();
    ASSERT_TRUE(port && port->AddSourceToMainRunLoop());
    Recorder lazy, witness;
    lazy.drain = false;
    platform::UsbIterator lazyIt, witnessIt;
    ASSERT_TRUE(port->AddMatchingNotification(platform::kPublishNotification, UsbMatching(1, 1), Recorder::Callback,
                                              &lazy, lazyIt));
    ASSERT_TRUE(port->AddMatchingNotification(platform::kPublishNotification, UsbMatching(2, 2), Recorder::Callback,
                                              &witness, witnessIt));
    Recorder::Drain(lazyIt);
    Recorder::Drain(witnessIt);

    bus.Plug("a", 1, 1);
    ASSERT_TRUE(Serve([&] { return lazy.batches.size() == 1; }));
    bus.Plug("b", 1, 1);
    bus.Plug("w", 2, 2);  // events arrive in order: once this one is seen, "b" was handled
    ASSERT_TRUE(Serve([&] { return witness.batches.size() == 1; }));
    EXPECT_EQ(lazy.batches.size(), 1u) << "not drained, not called";

    // The services kept coming into the iterator; draining it arms the notification again.
    EXPECT_EQ(Recorder::Drain(lazyIt), "0001/0001 0001/0001");
    lazy.drain = true;
    bus.Plug("c", 1, 1);
    ASSERT_TRUE(Serve([&] { return lazy.batches.size() == 2; }));
    EXPECT_EQ(lazy.batches.back(), "0001/0001");
}

TEST(UsbRegistry, ManyPairsShareOneMonitorAndOnlyTheMatchingOneHears) {
    SimulatedUsbBus bus;
    std::vector<std::unique_ptr<platform::NotificationPort>> ports;
    std::vector<Recorder> recorders(2000);
    int sockets = 0;
    for (int i = 0; i < 2000; ++i) {
        ports.push_back(Registry().NotificationPortCreate());
        ASSERT_TRUE(ports.back() && ports.back()->AddSourceToMainRunLoop());
        platform::UsbIterator it;
        ASSERT_TRUE(ports.back()->AddMatchingNotification(platform::kPublishNotification, UsbMatching(0x7000, i),
                                                          Recorder::Callback, &recorders[i], it));
        Recorder::Drain(it);
        // The first port opens the monitor; the others add nothing.
        if (i == 0) sockets = OpenSockets();
    }
    EXPECT_EQ(OpenSockets(), sockets) << "a port costs no socket";

    bus.Plug("modem", 0x7000, 1234);
    ASSERT_TRUE(Serve([&] { return !recorders[1234].batches.empty(); }));
    for (int i = 0; i < 2000; ++i)
        if (i != 1234) {
            EXPECT_THAT(recorders[i].batches, IsEmpty()) << i;
        }

    // A destroyed port hears nothing more.
    ports[1234].reset();
    bus.Plug("again", 0x7000, 1234);
    bus.Plug("witness", 0x7000, 1235);
    ASSERT_TRUE(Serve([&] { return !recorders[1235].batches.empty(); }));
    EXPECT_EQ(recorders[1234].batches.size(), 1u);
}

TEST(UsbRegistry, OnlyUsbDeviceDictionariesOfAPairOrOfEveryDeviceAreAccepted) {
    SimulatedUsbBus bus;
    bus.Plug("x", 0x1111, 0x2222);
    auto port = Registry().NotificationPortCreate();
    ASSERT_TRUE(port && port->AddSourceToMainRunLoop());
    Recorder r;
    platform::UsbIterator it;
    auto arm = [&](const char* type, Value matching) {
        return port->AddMatchingNotification(type, matching, Recorder::Callback, &r, it);
    };
    EXPECT_FALSE(arm("IOServiceMatched", UsbMatching(1, 2)));
    EXPECT_FALSE(arm(platform::kPublishNotification, Value(Dictionary{{"IOProviderClass", Value("IOMedia")}})));
    EXPECT_FALSE(arm(platform::kPublishNotification,
                     Value(Dictionary{{"IOProviderClass", Value("IOUSBDevice")}, {"idVendor", Value(1)}})));
    EXPECT_FALSE(arm(platform::kPublishNotification, Value(Dictionary{{"IOProviderClass", Value("IOUSBDevice")},
                                                                      {"idVendor", Value("0x1111")},
                                                                      {"idProduct", Value(0x2222)}})));
    ASSERT_TRUE(arm(platform::kPublishNotification, Value(*Registry().ServiceMatching("IOUSBDevice"))));
    EXPECT_EQ(Recorder::Drain(it), "1111/2222") << "the class alone matches every USB device";
    ASSERT_TRUE(arm(platform::kPublishNotification, UsbMatching(0x10000, 1)));
    EXPECT_EQ(Recorder::Drain(it), "");
}

}  // namespace
}  // namespace qvk::test
