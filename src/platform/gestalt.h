// The running system's version, as the Mac's Gestalt and process information report it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qvk::platform {

struct VersionTriple {
    long major = 0;
    long minor = 0;
    long bugfix = 0;
};

class Gestalt {
public:
    virtual ~Gestalt() = default;
    // The 'sysv' answer: 0x10MB, minor and bug-fix each capped at 9; none when the system can't tell.
    virtual std::optional<std::uint32_t> SystemVersion() = 0;
    // The 'sys1', 'sys2' and 'sys3' answers together.
    virtual std::optional<VersionTriple> SystemVersionParts() = 0;
    // Process information: whether the system is at least the given version.
    virtual bool IsOperatingSystemAtLeast(const VersionTriple& version) = 0;
    // Process information: the descriptive version text.
    virtual std::string OperatingSystemVersionString() = 0;
};

}  // namespace qvk::platform
