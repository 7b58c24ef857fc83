// Opening a USB device for real: libusb on a simulated usbfs device node (umockdev answers its
// requests), reached from a service of the USB registry; and how the platform's failures come out
// in the retry policy. Sleeps are recorded, not waited for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <cerrno>

#include "../../unit/test_support.h"
#include "framework/ports/usb_device.h"
#include "platform/service.h"
#include "platform/sleeper.h"
#include "platform/usb.h"

namespace qvk::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Eq;

// Device descriptor (12d1:1001, one configuration), then the configuration with one interface.
constexpr std::uint8_t kDescriptors[] = {0x12, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x40, 0xd1, 0x12, 0x01, 0x10,
                                         0x00, 0x00, 0x01, 0x02, 0x03, 0x01, 0x09, 0x02, 0x12, 0x00, 0x01, 0x01,
                                         0x00, 0x80, 0x32, 0x09, 0x04, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0x00};

// A test bed whose devices the process sees in place of the real ones.
class Bed {
public:
    Bed() : testbed_(umockdev_testbed_new()) {}
    ~Bed() {
        if (handler_) g_object_unref(handler_);
        g_object_unref(testbed_);
    }

    // A USB device at /devices/usb1/1-<n>; `node` adds its device node, `usbfs` makes the node
    // answer as the kernel's usbfs does.
    std::string Add(int n, bool devname, bool node, bool usbfs) {
        std::string syspath = "/sys/devices/usb1/1-" + std::to_string(n);
        std::string devnode = "bus/usb/001/00" + std::to_string(n);
        std::string text = "P: /devices/usb1/1-" + std::to_string(n) + "\n";
        if (node) text += "N: " + devnode + "\n";
        text += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n";
        if (devname) text += "E: DEVNAME=/dev/" + devnode + "\n";
        text += "A: idVendor=12d1\nA: idProduct=100" + std::to_string(n) + "\nA: devnum=" + std::to_string(n) + "\n";
        GError* error = nullptr;
        EXPECT_TRUE(umockdev_testbed_add_from_string(testbed_, text.c_str(), &error)) << error->message;
        if (usbfs) {
            handler_ = umockdev_ioctl_base_new();
            g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(OnIoctl), this);
            g_signal_connect(handler_, "handle-read", G_CALLBACK(OnRead), this);
            EXPECT_TRUE(umockdev_testbed_attach_ioctl(testbed_, ("/dev/" + devnode).c_str(), handler_, &error));
        }
        return syspath;
    }

private:
    // Connection info is all that libusb asks of a wrapped descriptor; the rest is not supported.
    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer) {
        if (umockdev_ioctl_client_get_request(client) != USBDEVFS_CONNECTINFO) {
            umockdev_ioctl_client_complete(client, -1, ENOTTY);
            return TRUE;
        }
        usbdevfs_connectinfo info{};
        info.devnum = 1;
        GError* error = nullptr;
        UMockdevIoctlData* data =
            umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof info, &error);
        umockdev_ioctl_data_update(data, 0, reinterpret_cast<guint8*>(&info), sizeof info);
        umockdev_ioctl_data_unref(data);
        umockdev_ioctl_client_complete(client, 0, 0);
        return TRUE;
    }
    // Reading the node gives the descriptors, from the start for each new reader.
    static gboolean OnRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
        auto* bed = static_cast<Bed*>(self);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        guint8* buffer = nullptr;
        gint wanted = 0;
        umockdev_ioctl_data_retrieve(arg, &buffer, &wanted);
        std::size_t n = std::min(sizeof kDescriptors - bed->read_, static_cast<std::size_t>(wanted));
        umockdev_ioctl_data_update(arg, 0, const_cast<guint8*>(kDescriptors + bed->read_), static_cast<gint>(n));
        bed->read_ = n == 0 ? 0 : bed->read_ + n;
        umockdev_ioctl_client_complete(client, static_cast<glong>(n), 0);
        return TRUE;
    }

    UMockdevTestbed* testbed_;
    UMockdevIoctlBase* handler_ = nullptr;
    std::size_t read_ = 0;
};

class RecordingSleeper : public platform::Sleeper {
public:
    void Usleep(std::uint32_t microseconds) override { sleeps.push_back(microseconds); }
    std::vector<std::uint32_t> sleeps;
};

// The registry's service for the device 12d1:<product>, as a port module's iterator hands it over.
struct Service {
    std::unique_ptr<platform::NotificationPort> port;
    platform::UsbService service;
};

Service Find(int product) {
    platform::Usb& usb = platform::Use<platform::Usb>();
    Service s;
    s.port = usb.NotificationPortCreate();
    EXPECT_TRUE(s.port);
    if (!s.port) return s;
    Value matching(Dictionary{{platform::kProviderClassKey, Value(platform::kUsbDeviceClass)},
                              {platform::kUsbVendorKey, Value(0x12d1)},
                              {platform::kUsbProductKey, Value(product)}});
    platform::UsbIterator iterator;
    EXPECT_TRUE(s.port->AddMatchingNotification(
        platform::kPublishNotification, matching, [](void*, platform::UsbIterator) {}, nullptr, iterator));
    s.service = usb.IteratorNext(iterator);
    EXPECT_TRUE(s.service);
    while (platform::UsbService more = usb.IteratorNext(iterator)) usb.ObjectRelease(more);
    return s;
}

struct Attempts {
    QVK_Framework_USB_Device device;
    std::vector<std::string> lines;
    std::vector<std::uint32_t> sleeps;
};

Attempts Open(platform::UsbService service) {
    RecordingSleeper sleeper;
    platform::Replace<platform::Sleeper> useSleeper(sleeper);
    CapturingLogger logger;
    Attempts a;
    a.device = QVK_Framework_USB_GetDevice(service);
    for (const auto& e : logger.MessagesOf("QVK_Framework_USB_GetDevice")) a.lines.push_back(e);
    a.sleeps = sleeper.sleeps;
    return a;
}

TEST(UsbDeviceAccess, OpensTheDeviceOnItsNodeAndReadsItsDescriptor) {
    Bed bed;
    bed.Add(1, true, true, true);
    Service s = Find(0x1001);
    Attempts a = Open(s.service);
    ASSERT_TRUE(a.device) << ::testing::PrintToString(a.lines);
    EXPECT_THAT(a.lines, ElementsAre("<none>")) << "opened at the first attempt";
    EXPECT_TRUE(a.sleeps.empty());
    std::uint16_t vendor = 0, product = 0;
    EXPECT_EQ(a.device->GetDeviceVendor(vendor), platform::kIOReturnSuccess);
    EXPECT_EQ(a.device->GetDeviceProduct(product), platform::kIOReturnSuccess);
    EXPECT_EQ(vendor, 0x12d1);
    EXPECT_EQ(product, 0x1001);
    QVK_Framework_USB_ReleaseDevice(std::move(a.device));
    platform::Use<platform::Usb>().ObjectRelease(s.service);
}

TEST(UsbDeviceAccess, PlatformFailuresKeepTheirMeaningInTheRetries) {
    Bed bed;
    bed.Add(2, false, false, false);  // no device node at all
    bed.Add(3, true, false, false);   // a node named, but not there
    bed.Add(4, true, true, false);    // a node that is no usbfs node

    Service nodeless = Find(0x1002);
    Attempts a = Open(nodeless.service);
    EXPECT_FALSE(a.device);
    EXPECT_EQ(a.sleeps.size(), 5u) << "unsupported: a short grace";
    EXPECT_EQ(a.lines.at(1), "IOCreatePlugInInterfaceForService -> e00002c7");

    Service missing = Find(0x1003);
    a = Open(missing.service);
    EXPECT_FALSE(a.device);
    EXPECT_EQ(a.sleeps.size(), 40u);
    EXPECT_THAT(a.sleeps, Each(Eq(100000u)));
    EXPECT_EQ(a.lines.at(1), "IOCreatePlugInInterfaceForService -> e00002c0");
    EXPECT_EQ(a.lines.back(), "failed");

    Service plain = Find(0x1004);
    a = Open(plain.service);
    EXPECT_FALSE(a.device);
    EXPECT_EQ(a.sleeps.size(), 40u);
    EXPECT_EQ(a.lines.at(1), "QueryInterface -> e00002bc");
}

}  // namespace
}  // namespace qvk::test
