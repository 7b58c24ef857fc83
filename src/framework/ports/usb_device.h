// Opening the user-space access object of a USB device that a port module has found. A device
// that is still settling after being plugged in is given a few seconds to answer.
#pragma once

#include <memory>

#include "platform/usb.h"
#include "platform/usb_device.h"

using QVK_Framework_USB_Device = std::unique_ptr<qvk::platform::UsbDeviceInterface>;

// The device interface of the USB device `service`, owned by the caller; null when it could not
// be had within 40 attempts 100 ms apart (5 attempts for a service that is not supported).
QVK_Framework_USB_Device QVK_Framework_USB_GetDevice(qvk::platform::UsbService service);

// Gives the device interface back, which closes the device; null is ignored.
void QVK_Framework_USB_ReleaseDevice(QVK_Framework_USB_Device device);
