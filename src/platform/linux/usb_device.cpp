// USB device access through libusb: the plug-in of a service is its usbfs device node, opened;
// the device interface is a libusb handle made on that descriptor. libusb runs without device
// discovery, so it starts no thread and never scans the bus.
#include "platform/usb_device.h"

#include <fcntl.h>
#include <libusb.h>

#include <cerrno>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/linux/udev_ptr.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

IoReturn FromErrno(int error) {
    switch (error) {
    case ENOENT:
    case ENODEV:
    case ENXIO: return kIOReturnNoDevice;
    case EACCES:
    case EPERM:
    case EROFS: return kIOReturnNotPrivileged;
    case EBUSY: return kIOReturnBusy;
    case EBADF: return kIOReturnNotOpen;
    default: return kIOReturnError;
    }
}

IoReturn FromLibusb(int error) {
    switch (error) {
    case LIBUSB_SUCCESS: return kIOReturnSuccess;
    case LIBUSB_ERROR_NOT_SUPPORTED: return kIOReturnUnsupported;
    case LIBUSB_ERROR_NO_DEVICE:
    case LIBUSB_ERROR_NOT_FOUND: return kIOReturnNoDevice;
    case LIBUSB_ERROR_ACCESS: return kIOReturnNotPrivileged;
    case LIBUSB_ERROR_BUSY: return kIOReturnBusy;
    default: return kIOReturnError;
    }
}

// One libusb context for the process, made on first use; every open device keeps it alive.
std::shared_ptr<libusb_context> Context(int& error) {
    static std::mutex lock;
    static std::weak_ptr<libusb_context> shared;
    std::lock_guard<std::mutex> hold(lock);
    if (auto context = shared.lock()) return context;
    libusb_set_option(nullptr, LIBUSB_OPTION_NO_DEVICE_DISCOVERY);
    libusb_context* raw = nullptr;
    error = libusb_init(&raw);
    if (error != LIBUSB_SUCCESS) return nullptr;
    std::shared_ptr<libusb_context> context(raw, libusb_exit);
    shared = context;
    return context;
}

class LibusbDevice final : public UsbDeviceInterface {
public:
    LibusbDevice(std::shared_ptr<libusb_context> context, UniqueFd fd, libusb_device_handle* handle)
        : context_(std::move(context)), fd_(std::move(fd)), handle_(handle) {}
    ~LibusbDevice() override { libusb_close(handle_); }

    IoReturn GetDeviceVendor(std::uint16_t& vendor) override {
        libusb_device_descriptor descriptor{};
        IoReturn result = FromLibusb(libusb_get_device_descriptor(libusb_get_device(handle_), &descriptor));
        if (result == kIOReturnSuccess) vendor = descriptor.idVendor;
        return result;
    }
    IoReturn GetDeviceProduct(std::uint16_t& product) override {
        libusb_device_descriptor descriptor{};
        IoReturn result = FromLibusb(libusb_get_device_descriptor(libusb_get_device(handle_), &descriptor));
        if (result == kIOReturnSuccess) product = descriptor.idProduct;
        return result;
    }

private:
    // Declared in this order so that the handle is closed before its descriptor, and the context
    // ends after both.
    std::shared_ptr<libusb_context> context_;
    UniqueFd fd_;
    libusb_device_handle* handle_;
};

class DeviceNodePlugIn final : public UsbPlugInInterface {
public:
    explicit DeviceNodePlugIn(UniqueFd fd) : fd_(std::move(fd)) {}

    // The device takes the plug-in's open node over: libusb does not close a wrapped descriptor,
    // and the plug-in is released before the device. Asked again, the plug-in has nothing open.
    IoReturn QueryDeviceInterface(std::unique_ptr<UsbDeviceInterface>& device) override {
        if (fd_.get() < 0) return kIOReturnNotOpen;
        int error = LIBUSB_SUCCESS;
        std::shared_ptr<libusb_context> context = Context(error);
        if (!context) return FromLibusb(error);
        libusb_device_handle* handle = nullptr;
        error = libusb_wrap_sys_device(context.get(), static_cast<intptr_t>(fd_.get()), &handle);
        if (error != LIBUSB_SUCCESS) return FromLibusb(error);
        device = std::make_unique<LibusbDevice>(std::move(context), std::move(fd_), handle);
        return kIOReturnSuccess;
    }

private:
    UniqueFd fd_;
};

class LinuxUsbDeviceAccess final : public UsbDeviceAccess {
public:
    IoReturn CreatePlugInInterfaceForService(UsbService service, std::unique_ptr<UsbPlugInInterface>& plugIn) override {
        std::optional<std::string> syspath = Use<Usb>().RegistryEntryGetPath(service);
        if (!syspath) return kIOReturnNoDevice;
        UdevPtr<udev> context(udev_new());
        if (!context) return kIOReturnError;
        UdevPtr<udev_device> device(udev_device_new_from_syspath(context.get(), syspath->c_str()));
        if (!device) return kIOReturnNoDevice;
        const char* subsystem = udev_device_get_subsystem(device.get());
        const char* devtype = udev_device_get_devtype(device.get());
        const char* node = udev_device_get_devnode(device.get());
        if (!subsystem || std::string_view(subsystem) != "usb" || !devtype ||
            std::string_view(devtype) != "usb_device" || !node)
            return kIOReturnUnsupported;
        UniqueFd fd(open(node, O_RDWR | O_CLOEXEC));
        if (fd.get() < 0) return FromErrno(errno);
        plugIn = std::make_unique<DeviceNodePlugIn>(std::move(fd));
        return kIOReturnSuccess;
    }
};

}  // namespace

template <>
UsbDeviceAccess& DefaultService<UsbDeviceAccess>() {
    static LinuxUsbDeviceAccess access;
    return access;
}

}  // namespace qvk::platform
