// The CD medium that a modem presents: finding it below the modem's registry entry, and ejecting
// the mounted volumes of a disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/io_registry.h"

// The first CD medium below `service`, depth first (a registry entry the caller releases), or none.
qvk::platform::RegistryEntry FindCDNode(qvk::platform::RegistryEntry service);

// The BSD name of the first CD medium below `service` ("sr0"); none when there is no such medium.
std::optional<std::string> QVK_Framework_BSDNameForMedia(qvk::platform::RegistryEntry service);

// Ejects every mounted volume of the disk `name` ("disk2"), in the order of the mount listing,
// after waiting `delay` microseconds before the first one; true when at least one was ejected.
// Devices whose names continue the disk's name with "s" and digits count as its volumes, so the
// name disk2 also takes disk21s3.
bool QVK_Framework_EjectDisk(const std::string& name, std::uint32_t delay);

// Ejects the volume mounted at `mountPoint`; true when it was ejected.
bool QVK_Framework_EjectVolume(const std::string& mountPoint);
