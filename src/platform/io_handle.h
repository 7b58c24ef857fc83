// Handles of the kernel registry's objects. Each kind of object has a handle type of its own, so
// that a USB service given where a registry entry or an iterator is meant does not compile.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>

namespace qvk::platform {

template <class Kind>
class IoHandle {
public:
    // No object.
    constexpr IoHandle() = default;
    constexpr explicit IoHandle(std::uint32_t value) : value_(value) {}

    constexpr std::uint32_t value() const { return value_; }
    constexpr explicit operator bool() const { return value_ != 0; }
    friend constexpr auto operator<=>(IoHandle, IoHandle) = default;

private:
    std::uint32_t value_ = 0;
};

}  // namespace qvk::platform

template <class Kind>
struct std::hash<qvk::platform::IoHandle<Kind>> {
    std::size_t operator()(qvk::platform::IoHandle<Kind> handle) const noexcept {
        return std::hash<std::uint32_t>{}(handle.value());
    }
};
