#include "framework/drivers/device_list.h"

#include <string_view>

#include "framework/base/string_to_number.h"
#include "framework/base/system_version.h"
#include "framework/log/logging.h"
#include "platform/property_list.h"

namespace {

constexpr const char* kSource = "DeviceList";
constexpr const char* kPairsFunction = "QVK_Framework_DeviceListUSBPairs";

// The id of a number value as a signed 32-bit number; none for null. Anything else is no id: it is
// logged and counts as null, so that a damaged file never ends the process here.
std::optional<std::int32_t> Id(const qvk::Value& value, std::uint32_t line) {
    qvk::Value number = QVK_Framework_StringToNumber(value);
    if (number.IsNull()) return std::nullopt;
    std::int64_t id = 0;
    if (!number.IsNumber() || !number.GetInteger(id)) {
        QVK_Framework_Log_Internal(kPairsFunction, kSource, line, 2, "Not a number: %@", number);
        return std::nullopt;
    }
    return static_cast<std::int32_t>(id);
}

}  // namespace

const std::array<QVK_Framework_DeviceRow, 19> Devices = {{
    {0x0AF0, 0x6971}, {0x0AF0, 0xD055}, {0x0AF0, 0xD157}, {0x0AF0, 0x7701}, {0x0AF0, 0x05C6},
    {0x0AF0, 0x6600}, {0x0AF0, 0x6901}, {0x05C6, 0x1000}, {0x12D1, 0x1001}, {0x12D1, 0x1003},
    {0x12D1, 0x141B}, {0x12D1, 0x1446}, {0x12D1, 0x1436}, {0x19D2, 0x0033}, {0x19D2, 0x1517},
    {0x19D2, 0x1519}, {0x19D2, 0x0031}, {0x19D2, 0x0100}, {0x19D2, 0x2000},
}};

std::optional<qvk::Array> QVK_Framework_ReadDeviceList(const std::string& path) {
    std::optional<qvk::Value> root = qvk::platform::ReadPropertyList(path);
    if (!root || !root->AsArray()) return std::nullopt;
    return *root->AsArray();
}

std::vector<QVK_Framework_USBPair> QVK_Framework_DeviceListUSBPairs(const qvk::Array& list) {
    std::vector<QVK_Framework_USBPair> pairs;
    for (const qvk::Value& entry : list) {
        if (!entry.IsDictionary()) {
            QVK_Framework_Log_Internal(kPairsFunction, kSource, 64, 2, "Entry is no dictionary: %@", entry);
            continue;
        }
        const qvk::Value& usb = entry["USB"];
        if (usb.IsNull()) continue;
        std::optional<std::int32_t> vendor = Id(usb["Vendor"], 70);
        if (!vendor) continue;
        const qvk::Value& product = usb["Product"];
        if (product.IsNull()) continue;
        if (const qvk::Array* products = product.AsArray()) {
            for (const qvk::Value& each : *products) {
                std::optional<std::int32_t> id = Id(each, 77);
                if (!id) break;
                pairs.push_back({*vendor, *id});
            }
        } else if (std::optional<std::int32_t> id = Id(product, 82)) {
            pairs.push_back({*vendor, *id});
        }
    }
    return pairs;
}

std::optional<std::string> UseDriver(const std::string& entry) {
    std::string_view text(entry);
    if (text.starts_with("10.5:")) {
        if (QVK_Framework_SystemVersion() > 0x108F) return std::nullopt;
        return text.starts_with("10.5::") ? entry.substr(6) : entry;
    }
    if (text.starts_with("10.9:")) {
        if (QVK_Framework_SystemVersion() < 0x1090) return std::nullopt;
        return text.starts_with("10.9::") ? entry.substr(6) : entry;
    }
    return entry;
}
