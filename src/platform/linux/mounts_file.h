// The mount listing as /proc/self/mounts gives it.
#pragma once

#include <string>
#include <string_view>

namespace qvk::platform {

// The listing "<device> on <mount point> (<type>, <options>)\n" of each line of `mounts` (the
// kernel's "<device> <mount point> <type> <options> ..." with octal escapes), in its order.
std::string MountListingOf(std::string_view mounts);

}  // namespace qvk::platform
