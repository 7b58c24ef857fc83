// udev through umockdev: the USB registry (present devices, later ones in batches through the run
// loop, removals, the iterator rule, one monitor for many pairs), opening a device on its usbfs
// node, and a modem's CD medium among its children.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <cerrno>
#include <filesystem>

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

// The registry's service of the present device, as a port module's iterator hands it over.
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
    auto port = Port();
    Recorder published, terminated, lazy;
    platform::UsbIterator it, lazyIt;
    ASSERT_TRUE(port->AddMatchingNotification(kPublishNotification, UsbMatching(0x19d2, 0x9001), Recorder::Callback,
                                              &published, it));
    EXPECT_EQ(Recorder::Drain(it), "19d2/9001") << "only the matching device that is present";
    ASSERT_TRUE(port->AddMatchingNotification(kTerminatedNotification, UsbMatching(0x19d2, 0x9001), Recorder::Callback,
                                              &terminated, it));
    EXPECT_EQ(Recorder::Drain(it), "");
    ASSERT_TRUE(port->AddMatchingNotification(kPublishNotification, UsbMatching(0xabcd, 0xef01), Recorder::Callback,
                                              &lazy, lazyIt));

    bus.Plug("second", 0x19d2, 0x9001);
    bus.Plug("third", 0x19d2, 0x9001);
    bus.Plug("lazy1", 0xabcd, 0xef01);
    ASSERT_TRUE(Serve([&] { return !published.batches.empty(); }));
    EXPECT_THAT(published.batches, ElementsAre("19d2/9001 19d2/9001")) << "devices that arrive together";
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
    EXPECT_THAT(terminated.batches, ElementsAre("19d2/9001")) << "the ids outlive the sysfs folder";
    EXPECT_EQ(published.batches.size(), 1u);
}

TEST(UsbRegistry, OnlyDictionariesOfAPairOrOfEveryUsbDeviceAreAcceptedAndManyPairsShareOneMonitor) {
    SimulatedUsbBus bus;
    bus.Plug("x", 0x1111, 0x2222);
    auto port = Port();
    Recorder r;
    platform::UsbIterator it;
    auto arm = [&](const char* type, const Value& matching) {
        return port->AddMatchingNotification(type, matching, Recorder::Callback, &r, it);
    };
    Value any = *Registry().ServiceMatching(platform::kUsbDeviceClass);
    EXPECT_FALSE(arm("IOServiceMatched", UsbMatching(1, 2)));
    EXPECT_FALSE(arm(kPublishNotification, Value(Dictionary{{platform::kProviderClassKey, Value("IOMedia")}})));
    EXPECT_FALSE(
        arm(kPublishNotification, Value(Dictionary{{platform::kProviderClassKey, Value(platform::kUsbDeviceClass)},
                                                   {platform::kUsbVendorKey, Value(1)}})));
    ASSERT_TRUE(arm(kPublishNotification, any));
    EXPECT_EQ(Recorder::Drain(it), "1111/2222") << "the class alone matches every USB device";
    ASSERT_TRUE(arm(kPublishNotification, UsbMatching(0x10000, 1)));
    EXPECT_EQ(Recorder::Drain(it), "");

    auto sockets = [] {
        int count = 0;
        std::error_code gone;  // the listing's own descriptor is closed by the time it is read
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            count += std::filesystem::read_symlink(entry, gone).string().starts_with("socket:");
        return count;
    };
    int before = sockets();
    std::vector<std::unique_ptr<platform::NotificationPort>> ports;
    std::vector<Recorder> recorders(2000);
    for (int i = 0; i < 2000; ++i) {
        ports.push_back(Port());
        ASSERT_TRUE(ports.back()->AddMatchingNotification(kPublishNotification, UsbMatching(0x7000, i),
                                                          Recorder::Callback, &recorders[i], it));
        Recorder::Drain(it);
    }
    EXPECT_EQ(sockets(), before) << "a port costs no socket";
    bus.Plug("modem", 0x7000, 1234);
    ASSERT_TRUE(Serve([&] { return !recorders[1234].batches.empty(); }));
    // A destroyed port hears nothing more.
    ports[1234].reset();
    bus.Plug("again", 0x7000, 1234);
    bus.Plug("witness", 0x7000, 1235);
    ASSERT_TRUE(Serve([&] { return !recorders[1235].batches.empty(); }));
    for (int i = 0; i < 2000; ++i) EXPECT_EQ(recorders[i].batches.size(), i == 1234 || i == 1235 ? 1u : 0u) << i;
}

// Device (12d1:1001) and configuration descriptors, as a usbfs node reads them.
constexpr std::uint8_t kDescriptors[] = {0x12, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x40, 0xd1, 0x12, 0x01, 0x10,
                                         0x00, 0x00, 0x01, 0x02, 0x03, 0x01, 0x09, 0x02, 0x12, 0x00, 0x01, 0x01,
                                         0x00, 0x80, 0x32, 0x09, 0x04, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0x00};

// What libusb asks of a wrapped usbfs descriptor: the connection info, then the descriptors.
gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer) {
    if (umockdev_ioctl_client_get_request(client) != USBDEVFS_CONNECTINFO) {
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
        return TRUE;
    }
    usbdevfs_connectinfo info{.devnum = 1, .slow = 0};
    UMockdevIoctlData* data =
        umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof info, nullptr);
    umockdev_ioctl_data_update(data, 0, reinterpret_cast<guint8*>(&info), sizeof info);
    umockdev_ioctl_data_unref(data);
    umockdev_ioctl_client_complete(client, 0, 0);
    return TRUE;
}
gboolean OnRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer offset) {
    std::size_t& done = *static_cast<std::size_t*>(offset);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    guint8* buffer = nullptr;
    gint wanted = 0;
    umockdev_ioctl_data_retrieve(arg, &buffer, &wanted);
    std::size_t n = std::min(sizeof kDescriptors - done, static_cast<std::size_t>(wanted));
    umockdev_ioctl_data_update(arg, 0, const_cast<guint8*>(kDescriptors + done), static_cast<gint>(n));
    done += n;
    umockdev_ioctl_client_complete(client, static_cast<glong>(n), 0);
    return TRUE;
}

struct NoSleep : platform::Sleeper {
    void Usleep(std::uint32_t) override {}
};

TEST(UsbDeviceAccess, OpensTheUsbfsNodeOfAServiceAndGivesEachFailureItsCode) {
    SimulatedUsbBus bus;
    // Devices 1-1 to 1-4 (12d1:1001 to 12d1:1004): a usbfs node, no node at all, a node named but
    // not there, a node that is no usbfs node.
    const char* nodes[] = {"N: bus/usb/001/001\nE: DEVNAME=/dev/bus/usb/001/001\n", "",
                           "E: DEVNAME=/dev/bus/usb/001/003\n",
                           "N: bus/usb/001/004\nE: DEVNAME=/dev/bus/usb/001/004\n"};
    for (int n = 1; n <= 4; ++n) {
        std::string text = Format(
            "P: /devices/usb1/1-%d\n%sE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n"
            "A: idVendor=12d1\nA: idProduct=100%d\n",
            n, nodes[n - 1], n);
        ASSERT_TRUE(umockdev_testbed_add_from_string(bus.Testbed(), text.c_str(), nullptr)) << text;
    }
    std::unique_ptr<UMockdevIoctlBase, decltype(&g_object_unref)> usbfs(umockdev_ioctl_base_new(), g_object_unref);
    std::size_t offset = 0;
    g_signal_connect(usbfs.get(), "handle-ioctl", G_CALLBACK(OnIoctl), nullptr);
    g_signal_connect(usbfs.get(), "handle-read", G_CALLBACK(OnRead), &offset);
    ASSERT_TRUE(umockdev_testbed_attach_ioctl(bus.Testbed(), "/dev/bus/usb/001/001", usbfs.get(), nullptr));
    NoSleep noSleep;
    platform::Replace<platform::Sleeper> useSleeper(noSleep);
    auto port = Port();

    for (auto [product, first] :
         std::vector<std::pair<int, std::string>>{{0x1002, "IOCreatePlugInInterfaceForService -> e00002c7"},
                                                  {0x1003, "IOCreatePlugInInterfaceForService -> e00002c0"},
                                                  {0x1004, "QueryInterface -> e00002bc"}}) {
        CapturingLogger logger;
        EXPECT_FALSE(QVK_Framework_USB_GetDevice(Find(*port, 0x12d1, product)));
        EXPECT_EQ(logger.MessagesOf("QVK_Framework_USB_GetDevice").at(1), first) << product;
    }
    CapturingLogger logger;
    QVK_Framework_USB_Device device = QVK_Framework_USB_GetDevice(Find(*port, 0x12d1, 0x1001));
    ASSERT_TRUE(device);
    EXPECT_THAT(logger.MessagesOf("QVK_Framework_USB_GetDevice"), ElementsAre("<none>")) << "the first attempt";
    std::uint16_t vendor = 0, product = 0;
    EXPECT_EQ(device->GetDeviceVendor(vendor), platform::kIOReturnSuccess);
    EXPECT_EQ(device->GetDeviceProduct(product), platform::kIOReturnSuccess);
    EXPECT_EQ(vendor << 16 | product, 0x12d11001);
}

TEST(CDMedia, TheCDMediumBelowAModemIsFoundDepthFirstAndNamedByItsKernelName) {
    SimulatedUsbBus bus;
    auto add = [&](const char* subsystem, const char* name, const std::string& parent,
                   std::vector<std::string> properties) { return bus.Add(subsystem, name, parent, {}, properties); };
    std::string modem = bus.Plug("1-1", 0x12d1, 0x1001);
    add("tty", "ttyUSB0", add("usb", "1-1:1.0", modem, {"DEVTYPE", "usb_interface"}), {});
    std::string host = add("scsi", "host3", add("usb", "1-1:1.1", modem, {"DEVTYPE", "usb_interface"}), {});
    add("block", "sdc", add("scsi", "3:0:0:0", host, {}), {"DEVTYPE", "disk"});
    add("block", "sr1", add("scsi", "3:0:0:1", host, {}), {"DEVTYPE", "disk", "ID_CDROM", "1"});
    // Nearer to the modem but later in order: a breadth-first search would take this one.
    std::string later = add("usb", "1-1:1.2", modem, {"DEVTYPE", "usb_interface"});
    add("block", "sr0", later, {"DEVTYPE", "disk", "ID_CDROM", "1"});
    std::string plain = bus.Plug("1-2", 0x12d1, 0x1002);
    auto name = [](const std::string& path) {
        platform::RegistryEntry entry = Entries().RegistryEntryFromPath(path);
        EXPECT_TRUE(entry) << path;
        std::optional<std::string> bsdName = QVK_Framework_BSDNameForMedia(entry);
        Entries().ObjectRelease(entry);
        return bsdName;
    };
    // The modem as the USB registry hands it to a port module.
    auto port = Port();
    EXPECT_EQ(name(*Registry().RegistryEntryGetPath(Find(*port, 0x12d1, 0x1001))), "sr1");
    EXPECT_EQ(name(later), "sr0");
    EXPECT_EQ(name(plain), std::nullopt);
    EXPECT_FALSE(Entries().RegistryEntryFromPath("/sys/devices/none"));

    platform::RegistryEntry entry = Entries().RegistryEntryFromPath(modem);
    platform::RegistryEntry node = FindCDNode(entry);
    EXPECT_TRUE(Entries().ObjectConformsTo(entry, platform::kUsbDeviceClass));
    EXPECT_FALSE(Entries().ObjectConformsTo(entry, platform::kCDMediaClass));
    EXPECT_TRUE(Entries().ObjectConformsTo(node, platform::kCDMediaClass));
    EXPECT_FALSE(Entries().ObjectConformsTo(node, platform::kUsbDeviceClass));
    Entries().ObjectRelease(node);
    Entries().ObjectRelease(entry);
    CapturingLogger logger;
    EXPECT_FALSE(FindCDNode(entry)) << "a released entry";
    EXPECT_THAT(logger.MessagesOf("FindCDNode"), ElementsAre("Unable to get children: kIOReturnNoDevice"));
}

}  // namespace
}  // namespace qvk::test
