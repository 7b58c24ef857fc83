// The registry's return codes (kern_return_t values), as the Mac's kernel services report them.
#pragma once

#include <cstdint>

namespace qvk::platform {

using IoReturn = std::int32_t;

inline constexpr IoReturn kIOReturnSuccess = 0;
inline constexpr IoReturn kIOReturnError = static_cast<IoReturn>(0xE00002BC);
inline constexpr IoReturn kIOReturnNoDevice = static_cast<IoReturn>(0xE00002C0);
inline constexpr IoReturn kIOReturnNotPrivileged = static_cast<IoReturn>(0xE00002C1);
inline constexpr IoReturn kIOReturnUnsupported = static_cast<IoReturn>(0xE00002C7);
inline constexpr IoReturn kIOReturnNotOpen = static_cast<IoReturn>(0xE00002CD);
inline constexpr IoReturn kIOReturnBusy = static_cast<IoReturn>(0xE00002D5);

}  // namespace qvk::platform
