// Finding a modem's CD medium among the udev children of its USB device, on a simulated device
// tree: the device, its interfaces, a SCSI host and target, and the block devices below.
#include <gtest/gtest.h>
#include <umockdev.h>

#include "../../unit/test_support.h"
#include "framework/eject/eject.h"
#include "platform/io_registry.h"
#include "platform/service.h"
#include "platform/usb.h"

namespace qvk::test {
namespace {

class Tree {
public:
    Tree() : testbed_(umockdev_testbed_new()) {}
    ~Tree() { g_object_unref(testbed_); }

    std::string Usb(const std::string& name, const char* product) {
        return Add("usb", name, "", {"idVendor", "12d1", "idProduct", product}, {"DEVTYPE", "usb_device"});
    }
    std::string Add(const std::string& subsystem, const std::string& name, const std::string& parent,
                    std::vector<std::string> attributes, std::vector<std::string> properties) {
        std::vector<gchar*> a, p;
        for (auto& s : attributes) a.push_back(s.data());
        for (auto& s : properties) p.push_back(s.data());
        a.push_back(nullptr);
        p.push_back(nullptr);
        gchar* path = umockdev_testbed_add_devicev(testbed_, subsystem.c_str(), name.c_str(),
                                                   parent.empty() ? nullptr : parent.c_str(), a.data(), p.data());
        EXPECT_TRUE(path) << name;
        std::string syspath = path ? path : "";
        g_free(path);
        return syspath;
    }

private:
    UMockdevTestbed* testbed_;
};

platform::IoRegistry& Registry() { return platform::Use<platform::IoRegistry>(); }

TEST(CDMedia, TheCDMediumBelowAModemIsFoundDepthFirst) {
    Tree tree;
    std::string modem = tree.Usb("1-1", "1001");
    std::string serial = tree.Add("usb", "1-1:1.0", modem, {}, {"DEVTYPE", "usb_interface"});
    tree.Add("tty", "ttyUSB0", serial, {}, {});
    std::string storage = tree.Add("usb", "1-1:1.1", modem, {}, {"DEVTYPE", "usb_interface"});
    std::string host = tree.Add("scsi", "host3", storage, {}, {"DEVTYPE", "scsi_host"});
    std::string lun0 = tree.Add("scsi", "3:0:0:0", host, {}, {"DEVTYPE", "scsi_device"});
    tree.Add("block", "sdc", lun0, {}, {"DEVTYPE", "disk"});
    std::string lun1 = tree.Add("scsi", "3:0:0:1", host, {}, {"DEVTYPE", "scsi_device"});
    tree.Add("block", "sr1", lun1, {}, {"DEVTYPE", "disk", "ID_CDROM", "1"});
    // Nearer to the modem but later in order: a breadth-first search would take this one.
    std::string later = tree.Add("usb", "1-1:1.2", modem, {}, {"DEVTYPE", "usb_interface"});
    tree.Add("block", "sr0", later, {}, {"DEVTYPE", "disk", "ID_CDROM", "1"});
    std::string plain = tree.Usb("1-2", "1002");
    tree.Add("usb", "1-2:1.0", plain, {}, {"DEVTYPE", "usb_interface"});

    platform::RegistryEntry entry = Registry().RegistryEntryFromPath(modem);
    ASSERT_TRUE(entry);
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(entry), "sr1");
    platform::RegistryEntry node = FindCDNode(entry);
    ASSERT_TRUE(node);
    EXPECT_TRUE(Registry().ObjectConformsTo(node, platform::kCDMediaClass));
    Registry().ObjectRelease(node);
    Registry().ObjectRelease(entry);

    platform::RegistryEntry nearer = Registry().RegistryEntryFromPath(later);
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(nearer), "sr0");
    Registry().ObjectRelease(nearer);

    platform::RegistryEntry other = Registry().RegistryEntryFromPath(plain);
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(other), std::nullopt) << "a device without a CD medium";
    Registry().ObjectRelease(other);
    EXPECT_FALSE(Registry().RegistryEntryFromPath("/sys/devices/none"));

    // The modem as the USB registry hands it to a port module leads to the same entry.
    auto port = platform::Use<platform::Usb>().NotificationPortCreate();
    ASSERT_TRUE(port);
    platform::UsbIterator iterator;
    Value matching(Dictionary{{platform::kProviderClassKey, Value(platform::kUsbDeviceClass)},
                              {platform::kUsbVendorKey, Value(0x12d1)},
                              {platform::kUsbProductKey, Value(0x1001)}});
    ASSERT_TRUE(port->AddMatchingNotification(
        platform::kPublishNotification, matching, [](void*, platform::UsbIterator) {}, nullptr, iterator));
    platform::UsbService service = platform::Use<platform::Usb>().IteratorNext(iterator);
    ASSERT_TRUE(service);
    auto path = platform::Use<platform::Usb>().RegistryEntryGetPath(service);
    ASSERT_TRUE(path);
    platform::RegistryEntry fromService = Registry().RegistryEntryFromPath(*path);
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(fromService), "sr1");
    Registry().ObjectRelease(fromService);
    platform::Use<platform::Usb>().ObjectRelease(service);
}

TEST(CDMedia, AnEntryThatIsGoneHasNoChildren) {
    Tree tree;
    std::string modem = tree.Usb("1-3", "1003");
    platform::RegistryEntry entry = Registry().RegistryEntryFromPath(modem);
    ASSERT_TRUE(entry);
    Registry().ObjectRelease(entry);
    CapturingLogger logger;
    EXPECT_FALSE(FindCDNode(entry));
    EXPECT_EQ(logger.MessagesOf("FindCDNode"), std::vector<std::string>{"Unable to get children: kIOReturnNoDevice"});
}

}  // namespace
}  // namespace qvk::test
