// The device registry through libudev: an entry is a udev device, its children are the devices
// whose parent it is, in the order udev enumerates them (by sysfs path). A CD medium is a block
// device of devtype "disk" with ID_CDROM=1; its "BSD Name" is its kernel name ("sr0").
#include "platform/io_registry.h"

#include <libudev.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <variant>

#include "platform/service.h"

namespace qvk::platform {

namespace {

struct UdevDeleter {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
};
template <class T>
using UdevPtr = std::unique_ptr<T, UdevDeleter>;

bool Is(const char* text, std::string_view expected) { return text && std::string_view(text) == expected; }

using Entry = std::shared_ptr<udev_device>;
using Children = std::deque<Entry>;

Entry Share(udev_device* device) { return Entry(device, udev_device_unref); }

// Operations may come from any thread; the handle table is guarded.
class LinuxIoRegistry final : public IoRegistry {
public:
    IoObject RegistryEntryFromPath(const std::string& path) override {
        std::lock_guard<std::mutex> hold(lock_);
        if (!Context()) return 0;
        udev_device* device = udev_device_new_from_syspath(context_.get(), path.c_str());
        if (!device) return 0;
        return Add(Share(device));
    }

    IoReturn RegistryEntryGetChildIterator(IoObject entry, IoIterator& iterator) override {
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
            if (up && Is(udev_device_get_syspath(up), parentPath)) children.push_back(Share(device.release()));
        }
        iterator = Add(std::move(children));
        return kIOReturnSuccess;
    }

    IoObject IteratorNext(IoIterator iterator) override {
        std::lock_guard<std::mutex> hold(lock_);
        auto it = objects_.find(iterator);
        if (it == objects_.end()) return 0;
        auto* children = std::get_if<Children>(&it->second);
        if (!children || children->empty()) return 0;
        Entry next = std::move(children->front());
        children->pop_front();
        return Add(std::move(next));
    }

    bool ObjectConformsTo(IoObject entry, const std::string& className) override {
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

    std::optional<Value> RegistryEntryCreateCFProperty(IoObject entry, const std::string& key) override {
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

    void ObjectRelease(IoObject object) override {
        std::lock_guard<std::mutex> hold(lock_);
        objects_.erase(object);
    }

private:
    udev* Context() {
        if (!context_) context_.reset(udev_new());
        return context_.get();
    }

    Entry Find(IoObject object) {
        auto it = objects_.find(object);
        if (it == objects_.end()) return nullptr;
        auto* entry = std::get_if<Entry>(&it->second);
        return entry ? *entry : nullptr;
    }

    IoObject Add(std::variant<Entry, Children> object) {
        do {
            if (++next_ == 0) ++next_;
        } while (objects_.count(next_));
        objects_.emplace(next_, std::move(object));
        return next_;
    }

    std::mutex lock_;
    UdevPtr<udev> context_;
    IoObject next_ = 0;
    std::unordered_map<IoObject, std::variant<Entry, Children>> objects_;
};

}  // namespace

template <>
IoRegistry& DefaultService<IoRegistry>() {
    static LinuxIoRegistry registry;
    return registry;
}

}  // namespace qvk::platform
