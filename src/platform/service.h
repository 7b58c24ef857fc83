// Each operating-system service is an interface with one implementation per platform. Code reaches
// the service through Use<Interface>(); a test puts a recording fake in its place for a scope.
#pragma once

namespace qvk::platform {

// Defined once per interface by the platform's implementation.
template <class Interface>
Interface& DefaultService();

template <class Interface>
struct ServiceSlot {
    static inline Interface* replacement = nullptr;
};

template <class Interface>
Interface& Use() {
    Interface* replacement = ServiceSlot<Interface>::replacement;
    return replacement ? *replacement : DefaultService<Interface>();
}

// Replaces a service for the life of this object; set up before other threads run.
template <class Interface>
class Replace {
public:
    explicit Replace(Interface& fake) : previous_(ServiceSlot<Interface>::replacement) {
        ServiceSlot<Interface>::replacement = &fake;
    }
    ~Replace() { ServiceSlot<Interface>::replacement = previous_; }
    Replace(const Replace&) = delete;
    Replace& operator=(const Replace&) = delete;

private:
    Interface* previous_;
};

}  // namespace qvk::platform
