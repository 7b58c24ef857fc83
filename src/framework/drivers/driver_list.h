// The names of the package's drivers for the running system release, from the device list.
#pragma once

#include <string>

#include "platform/value.h"

// The driver names of every entry's "Drivers" in "<bundlePath>/Contents/Resources/NetworkBlocker.xml"
// that are meant for this release, each once; empty when the file is missing or unreadable.
qvk::Set GetDriversFromNetworksBlocker(const std::string& bundlePath);
