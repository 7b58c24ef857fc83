// The kernel's registry of devices, walked from an entry to its children, shaped after the Mac's
// registry calls. Entries and iterators are handles that the caller releases; 0 is no object.
// Entries of this registry are found by their path; a USB service's path comes from
// Usb::RegistryEntryGetPath.
#pragma once

#include <optional>
#include <string>

#include "platform/io_return.h"
#include "platform/usb.h"
#include "platform/value.h"

namespace qvk::platform {

// The class of a CD medium, and its property that names it as a BSD device.
inline constexpr const char* kCDMediaClass = "IOCDMedia";
inline constexpr const char* kBSDNameKey = "BSD Name";

class IoRegistry {
public:
    virtual ~IoRegistry() = default;
    // The entry at `path` (on Linux a sysfs path), or 0.
    virtual IoObject RegistryEntryFromPath(const std::string& path) = 0;
    // An iterator over the entry's children, in a stable order.
    virtual IoReturn RegistryEntryGetChildIterator(IoObject entry, IoIterator& iterator) = 0;
    // The iterator's next entry (the caller releases it), or 0 when it is drained.
    virtual IoObject IteratorNext(IoIterator iterator) = 0;
    // Whether the entry is of the class or of a subclass of it ("IOCDMedia", "IOUSBDevice").
    virtual bool ObjectConformsTo(IoObject entry, const std::string& className) = 0;
    // The entry's property `key` ("BSD Name" as text); none when it has no such property.
    virtual std::optional<Value> RegistryEntryCreateCFProperty(IoObject entry, const std::string& key) = 0;
    virtual void ObjectRelease(IoObject object) = 0;
};

}  // namespace qvk::platform
