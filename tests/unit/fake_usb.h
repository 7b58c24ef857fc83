// A scripted USB registry for unit tests: it records the ports and notifications that are armed,
// fills publish iterators with the services given as present, and can be told to fail.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/run_loop.h"
#include "platform/usb.h"

namespace qvk::test {

class FakeUsb : public platform::Usb {
public:
    struct Armed {
        std::string type;
        Value matching;
        void* refcon;
        bool portAlive() const { return *alive; }
        std::shared_ptr<bool> alive;
    };

    // Which step fails, counted over the whole test (0 = the first call).
    int failPortAt = -1;
    int failSourceAt = -1;
    int failTerminateAt = -1;
    int failPublishAt = -1;

    // A service with these properties, present from the start.
    platform::UsbService AddPresent(Dictionary properties) {
        platform::UsbService s(++next_);
        properties_[s] = std::move(properties);
        present_.push_back(s);
        return s;
    }
    // An iterator holding new services with these properties, as a notification would hand it over.
    platform::UsbIterator Batch(const std::vector<Dictionary>& services) {
        platform::UsbIterator it(++next_);
        for (const Dictionary& p : services) {
            platform::UsbService s(++next_);
            properties_[s] = p;
            iterators_[it].push_back(s);
        }
        return it;
    }

    std::optional<Value> ServiceMatching(const char* className) override {
        return Value(Dictionary{{platform::kProviderClassKey, Value(className)}});
    }
    std::unique_ptr<platform::NotificationPort> NotificationPortCreate() override {
        if (ports_++ == failPortAt) return nullptr;
        return std::make_unique<Port>(*this);
    }
    platform::UsbService IteratorNext(platform::UsbIterator iterator) override {
        auto& queue = iterators_[iterator];
        if (queue.empty()) return {};
        platform::UsbService s = queue.front();
        queue.pop_front();
        return s;
    }
    void ObjectRelease(platform::UsbService service) override { released.push_back(service); }
    void ObjectRelease(platform::UsbIterator iterator) override { iterators_.erase(iterator); }
    std::optional<Value> RegistryEntryCreateCFProperty(platform::UsbService service, const std::string& key) override {
        Value properties(properties_[service]);
        if (properties[key].IsNull()) return std::nullopt;
        return properties[key];
    }

    std::optional<std::string> RegistryEntryGetPath(platform::UsbService service) override {
        if (!properties_.count(service)) return std::nullopt;
        return "/sys/devices/fake/" + std::to_string(service.value());
    }

    // Whether the iterator still holds services.
    bool Pending(platform::UsbIterator iterator) { return !iterators_[iterator].empty(); }

    std::vector<Armed> armed;
    std::vector<platform::UsbService> released;

private:
    class Port : public platform::NotificationPort {
    public:
        explicit Port(FakeUsb& usb) : usb_(usb) {}
        ~Port() override { *alive_ = false; }
        bool AddSourceToMainRunLoop() override { return usb_.sources_++ != usb_.failSourceAt; }
        bool AddMatchingNotification(const char* type, const Value& matching, platform::ServiceMatchingCallback,
                                     void* refcon, platform::UsbIterator& iterator) override {
            bool publish = std::string(type) == platform::kPublishNotification;
            int& count = publish ? usb_.publishes_ : usb_.terminates_;
            if (count++ == (publish ? usb_.failPublishAt : usb_.failTerminateAt)) return false;
            iterator = platform::UsbIterator(++usb_.next_);
            if (publish)
                for (platform::UsbService s : usb_.present_)
                    if (Value(usb_.properties_[s])[platform::kUsbVendorKey] == matching[platform::kUsbVendorKey] &&
                        Value(usb_.properties_[s])[platform::kUsbProductKey] == matching[platform::kUsbProductKey])
                        usb_.iterators_[iterator].push_back(s);
            usb_.armed.push_back({type, matching, refcon, alive_});
            return true;
        }

    private:
        FakeUsb& usb_;
        std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    };

    std::uint32_t next_ = 100;
    int ports_ = 0, sources_ = 0, publishes_ = 0, terminates_ = 0;
    std::map<platform::UsbService, Dictionary> properties_;
    std::vector<platform::UsbService> present_;
    std::map<platform::UsbIterator, std::deque<platform::UsbService>> iterators_;
};

// A run loop that keeps deferred work until the test runs it.
class FakeRunLoop : public platform::RunLoop {
public:
    void Run() override { RunDeferred(); }
    bool RunUntil(const std::function<bool()>& done, double) override {
        RunDeferred();
        return done();
    }
    void PerformDeferred(std::function<void()> work) override { deferred.push_back(std::move(work)); }
    void PerformOnMainThread(std::function<void()> work) override { deferred.push_back(std::move(work)); }
    void RunDeferred() {
        auto work = std::move(deferred);
        deferred.clear();
        for (auto& w : work) w();
    }
    std::vector<std::function<void()>> deferred;
};

}  // namespace qvk::test
