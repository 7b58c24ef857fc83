#include "framework/ports/usb_device.h"

#include "framework/log/logging.h"
#include "platform/service.h"
#include "platform/sleeper.h"

namespace {

constexpr const char* kFunction = "QVK_Framework_USB_GetDevice";
constexpr const char* kSource = "Apple/../../../Framework/Library/USB/GetDevice";
constexpr int kAttempts = 40;
// A service that is not supported now is unlikely to become so: a short grace only.
constexpr int kUnsupportedAttempts = 5;
constexpr std::uint32_t kRetryMicroseconds = 100000;

// Return codes are printed as the 32-bit values they are.
std::uint32_t Code(qvk::platform::IoReturn result) { return static_cast<std::uint32_t>(result); }

}  // namespace

QVK_Framework_USB_Device QVK_Framework_USB_GetDevice(qvk::platform::UsbService service) {
    using namespace qvk::platform;
    QVK_Framework_Log_Internal(kFunction, kSource, 21, 5, nullptr);
    for (int remaining = kAttempts; remaining > 0; --remaining) {
        std::unique_ptr<UsbPlugInInterface> plugIn;
        IoReturn created = Use<UsbDeviceAccess>().CreatePlugInInterfaceForService(service, plugIn);
        if (created == kIOReturnSuccess && plugIn) {
            QVK_Framework_USB_Device device;
            IoReturn queried = plugIn->QueryDeviceInterface(device);
            plugIn.reset();
            if (queried == kIOReturnSuccess && device) return device;
            QVK_Framework_Log_Internal(kFunction, kSource, 43, 5, "QueryInterface -> %08lx", Code(queried));
        } else {
            QVK_Framework_Log_Internal(kFunction, kSource, 47, 5, "IOCreatePlugInInterfaceForService -> %08lx",
                                       Code(created));
            if (created == kIOReturnUnsupported && remaining >= kUnsupportedAttempts) remaining = kUnsupportedAttempts;
        }
        Use<Sleeper>().Usleep(kRetryMicroseconds);
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 56, 5, "failed");
    return nullptr;
}

void QVK_Framework_USB_ReleaseDevice(QVK_Framework_USB_Device device) { device.reset(); }
