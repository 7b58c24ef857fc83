// USB devices through libudev. One udev monitor (subsystem "usb", devtype "usb_device") serves every
// notification port; its descriptor is watched by the main thread's GLib context. Notifications are
// found by a hash of (vendor, product), so many watched pairs cost neither a socket each nor a scan
// per event. The present devices are enumerated once when the monitor starts and kept up to date
// from its events, which also lets a removal be matched after the device's sysfs folder is gone.
// Everything here runs on the main thread.
#include "platform/usb.h"

#include <glib-unix.h>
#include <glib.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/linux/udev_ptr.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

struct DeviceIds {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
};

std::uint32_t PairKey(DeviceIds ids) { return (std::uint32_t{ids.vendor} << 16) | ids.product; }

// A USB id as sysfs and uevents write it: hexadecimal text of at most four digits.
std::optional<std::uint16_t> ParseId(std::string_view text) {
    if (text.empty() || text.size() > 4) return std::nullopt;
    std::uint16_t value = 0;
    for (char c : text) {
        int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
        if (digit < 0) return std::nullopt;
        value = static_cast<std::uint16_t>(value * 16 + digit);
    }
    return value;
}

// The sysfs attributes first; the uevent's "PRODUCT=vendor/product/release" when the folder is gone.
std::optional<DeviceIds> ReadIds(udev_device* device) {
    const char* vendor = udev_device_get_sysattr_value(device, "idVendor");
    const char* product = udev_device_get_sysattr_value(device, "idProduct");
    if (vendor && product) {
        auto v = ParseId(vendor);
        auto p = ParseId(product);
        if (v && p) return DeviceIds{*v, *p};
    }
    const char* triple = udev_device_get_property_value(device, "PRODUCT");
    if (!triple) return std::nullopt;
    std::string_view text(triple);
    auto first = text.find('/');
    auto second = first == std::string_view::npos ? first : text.find('/', first + 1);
    if (second == std::string_view::npos) return std::nullopt;
    auto v = ParseId(text.substr(0, first));
    auto p = ParseId(text.substr(first + 1, second - first - 1));
    if (!v || !p) return std::nullopt;
    return DeviceIds{*v, *p};
}

// One device as a service: its ids as they were when it was seen, and the udev device for the rest.
struct ServiceRecord {
    std::string syspath;
    std::optional<DeviceIds> ids;
    UdevPtr<udev_device> device;
};
using Record = std::shared_ptr<const ServiceRecord>;

Record MakeRecord(udev_device* device) {
    auto record = std::make_shared<ServiceRecord>();
    record->syspath = udev_device_get_syspath(device);
    record->ids = ReadIds(device);
    record->device.reset(udev_device_ref(device));
    return record;
}

// What a matching dictionary asks for: one (vendor, product) pair, every USB device, or a pair
// that no USB id can have.
struct Matching {
    enum class Kind { Pair, Every, Never } kind = Kind::Never;
    std::uint32_t key = 0;
};

std::optional<Matching> ParseMatching(const Value& matching) {
    const Dictionary* dict = matching.AsDictionary();
    if (!dict) return std::nullopt;
    const std::string* cls = matching[kProviderClassKey].AsString();
    if (!cls || *cls != kUsbDeviceClass) return std::nullopt;
    for (const auto& [key, value] : *dict)
        if (key != kProviderClassKey && key != kUsbVendorKey && key != kUsbProductKey) return std::nullopt;
    const Value& vendor = matching[kUsbVendorKey];
    const Value& product = matching[kUsbProductKey];
    if (vendor.IsNull() && product.IsNull()) return Matching{Matching::Kind::Every, 0};
    const auto* v = std::get_if<std::int64_t>(&vendor.storage());
    const auto* p = std::get_if<std::int64_t>(&product.storage());
    if (!v || !p) return std::nullopt;
    if (*v < 0 || *v > 0xFFFF || *p < 0 || *p > 0xFFFF) return Matching{Matching::Kind::Never, 0};
    return Matching{Matching::Kind::Pair,
                    PairKey(DeviceIds{static_cast<std::uint16_t>(*v), static_cast<std::uint16_t>(*p)})};
}

class LinuxNotificationPort;

struct Notification {
    LinuxNotificationPort* port = nullptr;
    bool publish = true;
    Matching matching;
    ServiceMatchingCallback callback = nullptr;
    void* refcon = nullptr;
    std::deque<Record> pending;
    // Set when the iterator is drained; cleared when the callback is called.
    bool armed = false;
};

// The udev side: the context, the one monitor and its watch, and the devices present now.
struct Watch {
    UdevPtr<udev> context;
    UdevPtr<udev_monitor> monitor;
    guint source = 0;
    std::map<std::string, Record> present;
    std::unordered_map<std::uint32_t, std::set<std::string>> presentByPair;

    ~Watch() {
        if (source) g_source_remove(source);
    }

    void Add(const Record& record) {
        present[record->syspath] = record;
        if (record->ids) presentByPair[PairKey(*record->ids)].insert(record->syspath);
    }

    Record Remove(const std::string& syspath) {
        auto it = present.find(syspath);
        if (it == present.end()) return nullptr;
        Record record = it->second;
        present.erase(it);
        if (record->ids) {
            auto bucket = presentByPair.find(PairKey(*record->ids));
            bucket->second.erase(syspath);
            if (bucket->second.empty()) presentByPair.erase(bucket);
        }
        return record;
    }
};

// Shared by the service and its ports, so that whichever ends last, at the end of the process too,
// finds the other's state intact.
class LinuxUsb final : public Usb, public std::enable_shared_from_this<LinuxUsb> {
public:
    std::optional<Value> ServiceMatching(const char* className) override {
        if (!className) return std::nullopt;
        // Made in the optional itself: a temporary Value moved into it and then destroyed makes
        // GCC 12's optimiser warn of a variant member used uninitialized.
        return std::optional<Value>(std::in_place, Dictionary{{kProviderClassKey, Value(className)}});
    }

    std::unique_ptr<NotificationPort> NotificationPortCreate() override;

    UsbService IteratorNext(UsbIterator iterator) override {
        auto it = notifications_.find(iterator);
        if (it == notifications_.end()) return {};
        Notification& n = it->second;
        if (n.pending.empty()) {
            n.armed = true;
            return {};
        }
        UsbService handle(NewHandle());
        services_.emplace(handle, std::move(n.pending.front()));
        n.pending.pop_front();
        return handle;
    }

    void ObjectRelease(UsbService service) override { services_.erase(service); }
    void ObjectRelease(UsbIterator iterator) override { RemoveNotification(iterator); }

    std::optional<Value> RegistryEntryCreateCFProperty(UsbService service, const std::string& key) override {
        auto it = services_.find(service);
        if (it == services_.end()) return std::nullopt;
        const ServiceRecord& record = *it->second;
        if (key == kUsbVendorKey || key == kUsbProductKey) {
            if (!record.ids) return std::nullopt;
            return Value(static_cast<int>(key == kUsbVendorKey ? record.ids->vendor : record.ids->product));
        }
        const char* text = udev_device_get_sysattr_value(record.device.get(), key.c_str());
        if (!text) return std::nullopt;
        return Value(text);
    }

    std::optional<std::string> RegistryEntryGetPath(UsbService service) override {
        auto it = services_.find(service);
        if (it == services_.end()) return std::nullopt;
        return it->second->syspath;
    }

    bool AddNotification(LinuxNotificationPort* port, const char* type, const Value& matching,
                         ServiceMatchingCallback callback, void* refcon, UsbIterator& iterator);
    void ReleasePort(const std::vector<UsbIterator>& iterators);
    bool StartWatchingMonitor();

private:
    // Services and iterators share one numbering: no number names two objects.
    std::uint32_t NewHandle() {
        do {
            if (++nextHandle_ == 0) ++nextHandle_;
        } while (services_.count(UsbService(nextHandle_)) || notifications_.count(UsbIterator(nextHandle_)));
        return nextHandle_;
    }

    std::vector<UsbIterator>* Bucket(const Matching& m) {
        if (m.kind == Matching::Kind::Pair) return &byPair_[m.key];
        if (m.kind == Matching::Kind::Every) return &everyDevice_;
        return nullptr;
    }

    void RemoveNotification(UsbIterator iterator) {
        auto it = notifications_.find(iterator);
        if (it == notifications_.end()) return;
        if (std::vector<UsbIterator>* bucket = Bucket(it->second.matching)) {
            std::erase(*bucket, iterator);
            if (bucket->empty() && it->second.matching.kind == Matching::Kind::Pair)
                byPair_.erase(it->second.matching.key);
        }
        notifications_.erase(it);
    }

    // Queues the service on every notification of its kind that matches it.
    void Deliver(const Record& record, bool publish, std::vector<UsbIterator>& touched) {
        auto offer = [&](const std::vector<UsbIterator>& bucket) {
            for (UsbIterator handle : bucket) {
                Notification& n = notifications_.at(handle);
                if (n.publish != publish) continue;
                n.pending.push_back(record);
                if (std::find(touched.begin(), touched.end(), handle) == touched.end()) touched.push_back(handle);
            }
        };
        if (record->ids) {
            auto it = byPair_.find(PairKey(*record->ids));
            if (it != byPair_.end()) offer(it->second);
        }
        offer(everyDevice_);
    }

    static gboolean OnMonitorReadable(gint fd, GIOCondition condition, gpointer self);
    void ReadEvents(std::vector<UsbIterator>& touched);
    void Fire(const std::vector<UsbIterator>& touched);

    std::uint32_t nextHandle_ = 0;
    std::unordered_map<UsbService, Record> services_;
    std::unordered_map<UsbIterator, Notification> notifications_;
    std::unordered_map<std::uint32_t, std::vector<UsbIterator>> byPair_;
    std::vector<UsbIterator> everyDevice_;
    std::unique_ptr<Watch> watch_;
    std::size_t ports_ = 0;
};

class LinuxNotificationPort final : public NotificationPort {
public:
    explicit LinuxNotificationPort(std::shared_ptr<LinuxUsb> usb) : usb_(std::move(usb)) {}
    ~LinuxNotificationPort() override { usb_->ReleasePort(iterators_); }

    bool AddSourceToMainRunLoop() override {
        if (!usb_->StartWatchingMonitor()) return false;
        scheduled_ = true;
        return true;
    }

    bool AddMatchingNotification(const char* type, const Value& matching, ServiceMatchingCallback callback,
                                 void* refcon, UsbIterator& iterator) override {
        if (!usb_->AddNotification(this, type, matching, callback, refcon, iterator)) return false;
        iterators_.push_back(iterator);
        return true;
    }

    bool scheduled() const { return scheduled_; }

private:
    std::shared_ptr<LinuxUsb> usb_;
    bool scheduled_ = false;
    std::vector<UsbIterator> iterators_;
};

std::unique_ptr<NotificationPort> LinuxUsb::NotificationPortCreate() {
    if (!watch_) {
        auto watch = std::make_unique<Watch>();
        watch->context.reset(udev_new());
        if (!watch->context) return nullptr;
        watch->monitor.reset(udev_monitor_new_from_netlink(watch->context.get(), "udev"));
        if (!watch->monitor) return nullptr;
        if (udev_monitor_filter_add_match_subsystem_devtype(watch->monitor.get(), "usb", "usb_device") < 0 ||
            udev_monitor_enable_receiving(watch->monitor.get()) < 0)
            return nullptr;
        // Enumerated after the monitor listens, so that no device falls between the two; one seen by
        // both is taken once.
        UdevPtr<udev_enumerate> scan(udev_enumerate_new(watch->context.get()));
        if (!scan || udev_enumerate_add_match_subsystem(scan.get(), "usb") < 0 ||
            udev_enumerate_add_match_property(scan.get(), "DEVTYPE", "usb_device") < 0 ||
            udev_enumerate_scan_devices(scan.get()) < 0)
            return nullptr;
        udev_list_entry* entry = nullptr;
        udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(scan.get())) {
            UdevPtr<udev_device> device(
                udev_device_new_from_syspath(watch->context.get(), udev_list_entry_get_name(entry)));
            if (device) watch->Add(MakeRecord(device.get()));
        }
        watch_ = std::move(watch);
    }
    ++ports_;
    return std::make_unique<LinuxNotificationPort>(shared_from_this());
}

bool LinuxUsb::StartWatchingMonitor() {
    if (!watch_) return false;
    if (!watch_->source)
        watch_->source = g_unix_fd_add_full(G_PRIORITY_DEFAULT, udev_monitor_get_fd(watch_->monitor.get()), G_IO_IN,
                                            OnMonitorReadable, this, nullptr);
    return watch_->source != 0;
}

bool LinuxUsb::AddNotification(LinuxNotificationPort* port, const char* type, const Value& matching,
                               ServiceMatchingCallback callback, void* refcon, UsbIterator& iterator) {
    if (!type || !callback || !watch_) return false;
    std::string_view kind(type);
    if (kind != kPublishNotification && kind != kTerminatedNotification) return false;
    std::optional<Matching> m = ParseMatching(matching);
    if (!m) return false;

    Notification n;
    n.port = port;
    n.publish = kind == kPublishNotification;
    n.matching = *m;
    n.callback = callback;
    n.refcon = refcon;
    if (n.publish) {
        if (m->kind == Matching::Kind::Pair) {
            auto it = watch_->presentByPair.find(m->key);
            if (it != watch_->presentByPair.end())
                for (const std::string& syspath : it->second) n.pending.push_back(watch_->present.at(syspath));
        } else if (m->kind == Matching::Kind::Every) {
            for (const auto& [syspath, record] : watch_->present) n.pending.push_back(record);
        }
    }
    iterator = UsbIterator(NewHandle());
    notifications_.emplace(iterator, std::move(n));
    if (std::vector<UsbIterator>* bucket = Bucket(*m)) bucket->push_back(iterator);
    return true;
}

void LinuxUsb::ReleasePort(const std::vector<UsbIterator>& iterators) {
    for (UsbIterator iterator : iterators) RemoveNotification(iterator);
    if (--ports_ == 0) watch_.reset();
}

gboolean LinuxUsb::OnMonitorReadable(gint, GIOCondition condition, gpointer data) {
    auto* self = static_cast<LinuxUsb*>(data);
    if (condition & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) {
        // A broken monitor socket would wake the loop for ever; stop watching it.
        self->watch_->source = 0;
        return G_SOURCE_REMOVE;
    }
    std::vector<UsbIterator> touched;
    self->ReadEvents(touched);
    self->Fire(touched);
    return G_SOURCE_CONTINUE;
}

// Takes every event that is waiting, so that devices that arrive together reach a handler as one
// batch.
void LinuxUsb::ReadEvents(std::vector<UsbIterator>& touched) {
    while (UdevPtr<udev_device> device{udev_monitor_receive_device(watch_->monitor.get())}) {
        const char* action = udev_device_get_action(device.get());
        const char* syspath = udev_device_get_syspath(device.get());
        if (!action || !syspath) continue;
        std::string_view what(action);
        if (what == "add") {
            if (watch_->present.count(syspath)) continue;
            Record record = MakeRecord(device.get());
            watch_->Add(record);
            Deliver(record, true, touched);
        } else if (what == "remove") {
            Record record = watch_->Remove(syspath);
            if (!record) record = MakeRecord(device.get());
            Deliver(record, false, touched);
        }
    }
}

void LinuxUsb::Fire(const std::vector<UsbIterator>& touched) {
    for (UsbIterator handle : touched) {
        // An earlier handler may have ended this notification.
        auto it = notifications_.find(handle);
        if (it == notifications_.end()) continue;
        Notification& n = it->second;
        if (!n.armed || !n.port->scheduled()) continue;
        n.armed = false;
        n.callback(n.refcon, handle);
    }
}

}  // namespace

template <>
Usb& DefaultService<Usb>() {
    static std::shared_ptr<LinuxUsb> usb = std::make_shared<LinuxUsb>();
    return *usb;
}

}  // namespace qvk::platform
