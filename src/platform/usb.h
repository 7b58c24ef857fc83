// USB devices in the kernel's service registry, and notifications when matching devices come and go.
// Shaped after the Mac's service registry: a matching dictionary names the service class and the
// properties a device must have; a notification is armed on a notification port with a callback and
// a context; each batch of matching services reaches the callback as an iterator.
//
// The iterator rule of that registry holds: the callback is called again only after its iterator
// was drained, that is after IteratorNext answered no service. A handler that leaves services in the
// iterator gets no further calls for that notification.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/io_handle.h"
#include "platform/value.h"

namespace qvk::platform {

// A USB device in the registry, and a batch of them handed over by a notification.
using UsbService = IoHandle<struct UsbServiceKind>;
using UsbIterator = IoHandle<struct UsbIteratorKind>;

// Called with the notification's context and the iterator that holds the new batch.
using ServiceMatchingCallback = void (*)(void* refcon, UsbIterator iterator);

// The notification types.
inline constexpr const char* kPublishNotification = "IOServicePublish";
inline constexpr const char* kTerminatedNotification = "IOServiceTerminate";

// The service class of a USB device and its id properties (numbers).
inline constexpr const char* kUsbDeviceClass = "IOUSBDevice";
inline constexpr const char* kUsbVendorKey = "idVendor";
inline constexpr const char* kUsbProductKey = "idProduct";
// The key under which a matching dictionary names its service class.
inline constexpr const char* kProviderClassKey = "IOProviderClass";

// A notification port: the notifications armed on it are served while it lives. Destroying it
// ends them all.
class NotificationPort {
public:
    virtual ~NotificationPort() = default;
    // Adds the port's run-loop source to the main thread's run loop in the default mode; false
    // when the port has no source. Later arrivals and removals are delivered only from then on.
    virtual bool AddSourceToMainRunLoop() = 0;
    // Arms a notification of `type` for services that match `matching`. On success `iterator`
    // holds the services that match now (for a publish notification) and true is answered; the
    // notification is armed once the caller has drained that iterator.
    virtual bool AddMatchingNotification(const char* type, const Value& matching, ServiceMatchingCallback callback,
                                         void* refcon, UsbIterator& iterator) = 0;
};

class Usb {
public:
    virtual ~Usb() = default;
    // A matching dictionary for the service class; none when it cannot be made.
    virtual std::optional<Value> ServiceMatching(const char* className) = 0;
    // A new notification port; none when the registry cannot be watched.
    virtual std::unique_ptr<NotificationPort> NotificationPortCreate() = 0;
    // The iterator's next service (the caller releases it), or none when it is drained.
    virtual UsbService IteratorNext(UsbIterator iterator) = 0;
    // Gives a service back.
    virtual void ObjectRelease(UsbService service) = 0;
    // Gives an iterator back, which ends its notification.
    virtual void ObjectRelease(UsbIterator iterator) = 0;
    // The service's registry property `key`: "idVendor" and "idProduct" as numbers, other
    // attributes as text; none when the service has no such property.
    virtual std::optional<Value> RegistryEntryCreateCFProperty(UsbService service, const std::string& key) = 0;
    // The service's path in the registry (on Linux its sysfs path); none for an unknown service.
    virtual std::optional<std::string> RegistryEntryGetPath(UsbService service) = 0;
};

}  // namespace qvk::platform
