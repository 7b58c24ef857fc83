// The device registry through libudev: an entry is a udev device, its children are the devices
// whose parent it is, in the order udev enumerates them (by sysfs path). A CD medium is a block
// device of devtype "disk" with ID_CDROM=1; its "BSD Name" is its kernel name ("sr0").
#include "platform/io_registry.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include "platform/linux/udev_ptr.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

bool Is(const char* text, std::string_view expected) { return text && std::string_view(text) == expected; }

using Entry = std::shared_ptr<udev_device>;
using Children = std::deque<Entry>;

// Operations may come from any thread; the handle tables are guarded.
class LinuxIoRegistry final : public IoRegistry {
public:
    RegistryEntry RegistryEntryFromPath(const std::string& path) override {
        std::lock_guard<std::mutex> hold(lock_);
        if (!Context()) return {};
        UdevPtr<udev_device> device(udev_device_new_from_syspath(context_.get(), path.c_str()));
        if (!device) return {};
        return Add(Entry(std::move(device)));
    }

    IoReturn RegistryEntryGetChildIterator(RegistryEntry entry, RegistryIterator& iterator) override {
        std::lock_guard<std::mutex> hold(lock_);
        Entry parent = Find(entry);
        if (!parent || !Context()) return kIOReturnNoDevice;
        UdevPtr<udev_enumerate> scan(udev_enumerate_new(context_.get()));
        // Matches the parent and all below it; only its direct children are kept.
        if (!scan || udev_enumerate_add_match_parent(scan.get(), parent.get()) < 0 ||
            udev_enumerate_scan_devices(scan.get()) < 0)
            return kIOReturnError;
        std::string_view parentPath = udev_device_get_syspath(parent.get());
        Children children;
        udev_list_entry* item = nullptr;
        udev_list_entry_foreach(item, udev_enumerate_get_list_entry(scan.get())) {
            UdevPtr<udev_device> device(udev_device_new_from_syspath(context_.get(), udev_list_entry_get_name(item)));
            if (!device) continue;
            udev_device* up = udev_device_get_parent(device.get());
            if (up && Is(udev_device_get_syspath(up), parentPath)) children.push_back(Entry(std::move(device)));
        }
        iterator = RegistryIterator(NewHandle());
        iterators_.emplace(iterator, std::move(children));
        return kIOReturnSuccess;
    }

    RegistryEntry IteratorNext(RegistryIterator iterator) override {
        std::lock_guard<std::mutex> hold(lock_);
        auto it = iterators_.find(iterator);
        if (it == iterators_.end() || it->second.empty()) return {};
        Entry next = std::move(it->second.front());
        it->second.pop_front();
        return Add(std::move(next));
    }

    bool ObjectConformsTo(RegistryEntry entry, const std::string& className) override {
        std::lock_guard<std::mutex> hold(lock_);
        Entry device = Find(entry);
        if (!device) return false;
        const char* subsystem = udev_device_get_subsystem(device.get());
        const char* devtype = udev_device_get_devtype(device.get());
        if (className == kCDMediaClass)
            return Is(subsystem, "block") && Is(devtype, "disk") &&
                   Is(udev_device_get_property_value(device.get(), "ID_CDROM"), "1");
        if (className == kUsbDeviceClass) return Is(subsystem, "usb") && Is(devtype, "usb_device");
        return false;
    }

    std::optional<Value> RegistryEntryCreateCFProperty(RegistryEntry entry, const std::string& key) override {
        std::lock_guard<std::mutex> hold(lock_);
        Entry device = Find(entry);
        if (!device) return std::nullopt;
        if (key == kBSDNameKey) {
            if (!Is(udev_device_get_subsystem(device.get()), "block")) return std::nullopt;
            return Value(udev_device_get_sysname(device.get()));
        }
        const char* text = udev_device_get_sysattr_value(device.get(), key.c_str());
        if (!text) return std::nullopt;
        return Value(text);
    }

    void ObjectRelease(RegistryEntry entry) override {
        std::lock_guard<std::mutex> hold(lock_);
        entries_.erase(entry);
    }

    void ObjectRelease(RegistryIterator iterator) override {
        std::lock_guard<std::mutex> hold(lock_);
        iterators_.erase(iterator);
    }

private:
    udev* Context() {
        if (!context_) context_.reset(udev_new());
        return context_.get();
    }

    Entry Find(RegistryEntry entry) {
        auto it = entries_.find(entry);
        return it == entries_.end() ? nullptr : it->second;
    }

    // Entries and iterators share one numbering: no number names two objects.
    std::uint32_t NewHandle() {
        do {
            if (++next_ == 0) ++next_;
        } while (entries_.count(RegistryEntry(next_)) || iterators_.count(RegistryIterator(next_)));
        return next_;
    }

    RegistryEntry Add(Entry device) {
        RegistryEntry entry(NewHandle());
        entries_.emplace(entry, std::move(device));
        return entry;
    }

    std::mutex lock_;
    UdevPtr<udev> context_;
    std::uint32_t next_ = 0;
    std::unordered_map<RegistryEntry, Entry> entries_;
    std::unordered_map<RegistryIterator, Children> iterators_;
};

}  // namespace

template <>
IoRegistry& DefaultService<IoRegistry>() {
    static LinuxIoRegistry registry;
    return registry;
}

}  // namespace qvk::platform
