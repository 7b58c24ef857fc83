// User-space access to a USB device, shaped after the Mac's plug-in mechanism: a plug-in is created
// for a USB device's service, then asked for the device interface, which keeps the device open until
// it is destroyed. Failures are the registry's return codes.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/io_return.h"
#include "platform/usb.h"

namespace qvk::platform {

// An open USB device; destroying it closes the device.
class UsbDeviceInterface {
public:
    virtual ~UsbDeviceInterface() = default;
    // The ids in the device's descriptor.
    virtual IoReturn GetDeviceVendor(std::uint16_t& vendor) = 0;
    virtual IoReturn GetDeviceProduct(std::uint16_t& product) = 0;
};

// The plug-in made for one service; destroying it releases it.
class UsbPlugInInterface {
public:
    virtual ~UsbPlugInInterface() = default;
    // Asks for the device interface; on success `device` holds it.
    virtual IoReturn QueryDeviceInterface(std::unique_ptr<UsbDeviceInterface>& device) = 0;
};

class UsbDeviceAccess {
public:
    virtual ~UsbDeviceAccess() = default;
    // Creates the plug-in for a service of the USB registry (platform/usb.h); on success `plugIn`
    // holds it. A service that is no USB device with a device node answers kIOReturnUnsupported.
    virtual IoReturn CreatePlugInInterfaceForService(UsbService service,
                                                     std::unique_ptr<UsbPlugInInterface>& plugIn) = 0;
};

}  // namespace qvk::platform
