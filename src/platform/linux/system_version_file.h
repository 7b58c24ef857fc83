// The system version as SystemVersion.plist states it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/gestalt.h"

namespace qvk::platform {

// The "ProductVersion" of the file at `path`; 10.15.0 when there is no file, none when it is
// unreadable or its version text is not "major.minor[.bugfix]".
std::optional<VersionTriple> ReadSystemVersionFile(const std::string& path);

// 0x10MB with minor and bug-fix capped at 9; a later major release counts as 0x1099.
std::optional<std::uint32_t> SystemVersionNumber(const VersionTriple& version);

}  // namespace qvk::platform
