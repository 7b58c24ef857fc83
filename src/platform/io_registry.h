// The kernel's registry of devices, walked from an entry to its children, shaped after the Mac's
// registry calls. Entries and iterators are handles that the caller releases.
// Entries of this registry are found by their path; a USB service's path comes from
// Usb::RegistryEntryGetPath.
#pragma once

#include <optional>
#include <string>

#include "platform/io_handle.h"
#include "platform/io_return.h"
#include "platform/usb.h"
#include "platform/value.h"

namespace qvk::platform {

// The class of a CD medium, and its property that names it as a BSD device.
inline constexpr const char* kCDMediaClass = "IOCDMedia";
inline constexpr const char* kBSDNameKey = "BSD Name";

using RegistryEntry = IoHandle<struct RegistryEntryKind>;
using RegistryIterator = IoHandle<struct RegistryIteratorKind>;

class IoRegistry {
public:
    virtual ~IoRegistry() = default;
    // The entry at `path` (on Linux a sysfs path), or none.
    virtual RegistryEntry RegistryEntryFromPath(const std::string& path) = 0;
    // An iterator over the entry's children, in a stable order.
    virtual IoReturn RegistryEntryGetChildIterator(RegistryEntry entry, RegistryIterator& iterator) = 0;
    // The iterator's next entry (the caller releases it), or none when it is drained.
    virtual RegistryEntry IteratorNext(RegistryIterator iterator) = 0;
    // Whether the entry is of the class or of a subclass of it ("IOCDMedia", "IOUSBDevice").
    virtual bool ObjectConformsTo(RegistryEntry entry, const std::string& className) = 0;
    // The entry's property `key` ("BSD Name" as text); none when it has no such property.
    virtual std::optional<Value> RegistryEntryCreateCFProperty(RegistryEntry entry, const std::string& key) = 0;
    virtual void ObjectRelease(RegistryEntry entry) = 0;
    virtual void ObjectRelease(RegistryIterator iterator) = 0;
};

}  // namespace qvk::platform
