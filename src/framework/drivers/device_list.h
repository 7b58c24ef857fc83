// The device list: the built-in table of watched USB modems, and the package's file
// "NetworkBlocker.xml", an array of entries with a "USB" identity ("Vendor", "Product") and the
// "Drivers" that serve the device.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/value.h"

struct QVK_Framework_DeviceRow {
    std::uint16_t Vendor;
    std::uint16_t Product;
};

// Watched whatever the file says, before the file's pairs, in this order.
extern const std::array<QVK_Framework_DeviceRow, 19> Devices;

struct QVK_Framework_USBPair {
    std::int32_t Vendor;
    std::int32_t Product;
    bool operator==(const QVK_Framework_USBPair&) const = default;
};

// The file's root array; none when the file is missing, is no property list or its root is no array.
std::optional<qvk::Array> QVK_Framework_ReadDeviceList(const std::string& path);

// The (vendor, product) pairs of the list in file order, a "Product" array in its order up to its
// first element that is no number. Number texts go through QVK_Framework_StringToNumber, so a
// malformed one ends the process. Entries without "USB" or "Vendor" give nothing.
std::vector<QVK_Framework_USBPair> QVK_Framework_DeviceListUSBPairs(const qvk::Array& list);

// The driver name that a "Drivers" text gives on the running system version, or none when the text
// is not meant for it: "10.5:" texts are for systems before 10.9, "10.9:" texts for 10.9 on; the
// double-colon forms lose their six-character prefix, the single-colon forms keep it.
std::optional<std::string> UseDriver(const std::string& entry);
