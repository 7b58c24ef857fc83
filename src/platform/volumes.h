// Mounted volumes: the mount listing, the volume that holds a path, and ejecting a volume, shaped
// after the Mac's "/sbin/mount" listing and its volume calls.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qvk::platform {

// A mounted volume as the platform identifies it.
struct VolumeRef {
    std::string mountPoint;
    std::string device;
    std::uint64_t id = 0;
};

class Volumes {
public:
    virtual ~Volumes() = default;
    // The mount listing as bytes, one line per mounted file system, in mount order:
    // "<device> on <mount point> (<type>, <options>)". None when it cannot be read whole.
    virtual std::optional<std::string> MountListing() = 0;
    // The volume mounted at `path` (symbolic links resolved); none when no volume is mounted
    // there, so that a volume that went away never leads to the one that held its mount point.
    virtual std::optional<VolumeRef> VolumeForPath(const std::string& path) = 0;
    // Ejects the volume synchronously. On failure `dissenter` is a process that keeps the volume
    // busy, 0 when none is known.
    virtual bool EjectVolumeSync(const VolumeRef& volume, std::uint32_t& dissenter) = 0;
};

}  // namespace qvk::platform
