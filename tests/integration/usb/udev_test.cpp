// udev through umockdev: the USB registry (present devices, later ones in batches through the run
// loop, removals, the iterator rule), the failures of opening a device on its node, and a modem's
// CD medium among its children.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <umockdev.h>

#include "../../unit/test_support.h"
#include "framework/eject/eject.h"
#include "framework/ports/usb_device.h"
#include "platform/io_registry.h"
#include "platform/run_loop.h"
#include "platform/sleeper.h"
#include "simulated_usb_bus.h"

namespace qvk::test {
namespace {

using platform::kPublishNotification, platform::kTerminatedNotification;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

platform::Usb& Registry() { return platform::Use<platform::Usb>(); }
platform::IoRegistry& Entries() { return platform::Use<platform::IoRegistry>(); }
bool Serve(const std::function<bool()>& done) { return platform::Use<platform::RunLoop>().RunUntil(done, 5.0); }

// Records each batch as "vvvv/pppp ..." of the services it held, or "lazy" when it leaves them.
struct Recorder {
    bool drain = true;
    std::vector<std::string> batches;

    static void Callback(void* self, platform::UsbIterator iterator) {
        auto* r = static_cast<Recorder*>(self);
        r->batches.push_back(r->drain ? Drain(iterator) : "lazy");
    }
    static std::string Drain(platform::UsbIterator iterator) {
        std::string batch;
        while (platform::UsbService s = Registry().IteratorNext(iterator)) {
            std::int64_t vendor = -1, product = -1;
            if (auto v = Registry().RegistryEntryCreateCFProperty(s, platform::kUsbVendorKey)) v->GetInteger(vendor);
            if (auto p = Registry().RegistryEntryCreateCFProperty(s, platform::kUsbProductKey)) p->GetInteger(product);
            batch += Format(batch.empty() ? "%04x/%04x" : " %04x/%04x", vendor, product);
            Registry().ObjectRelease(s);
        }
        return batch;
    }
};

std::unique_ptr<platform::NotificationPort> Port() {
    auto port = Registry().NotificationPortCreate();
    EXPECT_TRUE(port && port->AddSourceToMainRunLoop());
    return port;
}

// The service of a present device, as a port module's iterator hands it over.
platform::UsbService Find(platform::NotificationPort& port, int vendor, int product) {
    platform::UsbIterator it;
    EXPECT_TRUE(port.AddMatchingNotification(
        kPublishNotification, UsbMatching(vendor, product), [](void*, platform::UsbIterator) {}, nullptr, it));
    return Registry().IteratorNext(it);
}

TEST(UsbRegistry, PresentDevicesComeWithTheIteratorLaterOnesInBatchesAndOnlyADrainedIteratorIsCalled) {
    SimulatedUsbBus bus;
    std::string first = bus.Plug("first", 0x19d2, 0x9001);
    bus.Plug("other", 0x0af0, 0x6971);
    auto port = Port(), closed = Port();
    Recorder published, terminated, lazy, gone;
    platform::UsbIterator it, lazyIt;
    auto arm = [&](platform::NotificationPort& p, const char* type, const Value& matching, Recorder& r) {
        return p.AddMatchingNotification(type, matching, Recorder::Callback, &r, it);
    };
    EXPECT_FALSE(arm(*port, "IOServiceNoSuchNotification", UsbMatching(0x19d2, 0x9001), published));
    ASSERT_TRUE(arm(*port, kPublishNotification, UsbMatching(0x19d2, 0x9001), published));
    EXPECT_EQ(Recorder::Drain(it), "19d2/9001") << "only the matching device that is present";
    ASSERT_TRUE(arm(*port, kTerminatedNotification, UsbMatching(0x19d2, 0x9001), terminated));
    EXPECT_EQ(Recorder::Drain(it), "");
    ASSERT_TRUE(arm(*closed, kPublishNotification, UsbMatching(0x19d2, 0x9001), gone));
    closed.reset();
    ASSERT_TRUE(arm(*port, kPublishNotification, UsbMatching(0xabcd, 0xef01), lazy));
    lazyIt = it;

    bus.Plug("second", 0x19d2, 0x9001);
    bus.Plug("third", 0x19d2, 0x9001);
    bus.Plug("lazy1", 0xabcd, 0xef01);
    ASSERT_TRUE(Serve([&] { return !published.batches.empty(); }));
    EXPECT_THAT(published.batches, ElementsAre("19d2/9001 19d2/9001")) << "devices that arrive together";
    EXPECT_THAT(gone.batches, IsEmpty()) << "a destroyed port hears nothing";
    EXPECT_THAT(lazy.batches, IsEmpty()) << "an iterator never drained is not armed";
    EXPECT_EQ(Recorder::Drain(lazyIt), "abcd/ef01");

    lazy.drain = false;
    bus.Plug("lazy2", 0xabcd, 0xef01);
    ASSERT_TRUE(Serve([&] { return lazy.batches.size() == 1; }));
    bus.Plug("lazy3", 0xabcd, 0xef01);
    // Events come in order: once the removal is seen, "lazy3" was handled.
    bus.Unplug(first);
    ASSERT_TRUE(Serve([&] { return !terminated.batches.empty(); }));
    EXPECT_EQ(lazy.batches.size(), 1u) << "not drained, not called again";
    EXPECT_EQ(Recorder::Drain(lazyIt), "abcd/ef01 abcd/ef01");
    EXPECT_THAT(terminated.batches, ElementsAre("19d2/9001"));

    // Only dictionaries of the USB device class are taken; the class alone matches every device.
    EXPECT_FALSE(
        arm(*port, kPublishNotification, Value(Dictionary{{platform::kProviderClassKey, Value("IOMedia")}}), lazy));
    ASSERT_TRUE(arm(*port, kPublishNotification, *Registry().ServiceMatching(platform::kUsbDeviceClass), lazy));
    EXPECT_THAT(Recorder::Drain(it), ::testing::HasSubstr("0af0/6971"));
}

// The waits between attempts, recorded instead of waited for.
struct Waits : platform::Sleeper {
    void Usleep(std::uint32_t microseconds) override { all.push_back(microseconds); }
    std::vector<std::uint32_t> all;
};

TEST(UsbDeviceAccess, EachFailureToOpenAServiceHasItsCodeAndItsNumberOfAttempts) {
    SimulatedUsbBus bus;
    // 12d1:1001 to 12d1:1003: no device node, a node named but not there, a node that is no usbfs node.
    const char* nodes[] = {"", "E: DEVNAME=/dev/bus/usb/001/002\n",
                           "N: bus/usb/001/003\nE: DEVNAME=/dev/bus/usb/001/003\n"};
    for (int n = 1; n <= 3; ++n) {
        std::string text = Format(
            "P: /devices/usb1/1-%d\n%sE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n"
            "A: idVendor=12d1\nA: idProduct=100%d\n",
            n, nodes[n - 1], n);
        ASSERT_TRUE(umockdev_testbed_add_from_string(bus.Testbed(), text.c_str(), nullptr)) << text;
    }
    auto port = Port();
    // An unsupported service gets five attempts, the others forty, a tenth of a second apart.
    for (auto [product, first, attempts] : std::vector<std::tuple<int, std::string, std::size_t>>{
             {0x1001, "IOCreatePlugInInterfaceForService -> e00002c7", 5},
             {0x1002, "IOCreatePlugInInterfaceForService -> e00002c0", 40},
             {0x1003, "QueryInterface -> e00002bc", 40}}) {
        Waits waits;
        platform::Replace<platform::Sleeper> useWaits(waits);
        CapturingLogger logger;
        EXPECT_FALSE(QVK_Framework_USB_GetDevice(Find(*port, 0x12d1, product)));
        std::vector<std::string> expected(attempts, first);
        expected.insert(expected.begin(), "<none>");
        expected.push_back("failed");
        EXPECT_EQ(logger.MessagesOf("QVK_Framework_USB_GetDevice"), expected) << product;
        EXPECT_EQ(waits.all, std::vector<std::uint32_t>(attempts, 100000u));
    }
}

TEST(CDMedia, TheCDMediumBelowAModemIsFoundDepthFirstAndNamedByItsKernelName) {
    SimulatedUsbBus bus;
    auto add = [&](const char* subsystem, const char* name, const std::string& parent,
                   std::vector<std::string> properties) { return bus.Add(subsystem, name, parent, {}, properties); };
    std::string modem = bus.Plug("1-1", 0x12d1, 0x1001);
    std::string host = add("scsi", "host3", add("usb", "1-1:1.1", modem, {"DEVTYPE", "usb_interface"}), {});
    std::string disk = add("scsi", "3:0:0:0", host, {});
    add("block", "sdc", disk, {"DEVTYPE", "disk"});
    add("block", "sr1", add("scsi", "3:0:0:1", host, {}), {"DEVTYPE", "disk", "ID_CDROM", "1"});
    // Nearer to the modem but later in order: a breadth-first search would take this one.
    std::string later = add("usb", "1-1:1.2", modem, {"DEVTYPE", "usb_interface"});
    add("block", "sr0", later, {"DEVTYPE", "disk", "ID_CDROM", "1"});
    auto name = [](const std::string& path) {
        platform::RegistryEntry entry = Entries().RegistryEntryFromPath(path);
        std::optional<std::string> bsdName = QVK_Framework_BSDNameForMedia(entry);
        Entries().ObjectRelease(entry);
        return bsdName;
    };
    EXPECT_EQ(name(modem), "sr1");
    EXPECT_EQ(name(later), "sr0");
    EXPECT_EQ(name(disk), std::nullopt) << "a disk that is no CD";
    EXPECT_FALSE(Entries().RegistryEntryFromPath("/sys/devices/none"));

    platform::RegistryEntry entry = Entries().RegistryEntryFromPath(modem);
    EXPECT_TRUE(Entries().ObjectConformsTo(entry, platform::kUsbDeviceClass));
    Entries().ObjectRelease(entry);
    CapturingLogger logger;
    EXPECT_FALSE(FindCDNode(entry)) << "a released entry";
    EXPECT_THAT(logger.MessagesOf("FindCDNode"), ElementsAre("Unable to get children: kIOReturnNoDevice"));
}

}  // namespace
}  // namespace qvk::test
