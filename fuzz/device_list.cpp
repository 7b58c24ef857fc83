// The walk over a device list: its USB pairs and its driver names, on a system version that the
// first byte chooses.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "framework/drivers/device_list.h"
#include "platform/gestalt.h"
#include "platform/property_list.h"
#include "platform/service.h"

namespace {

class FixedVersion final : public qvk::platform::Gestalt {
public:
    std::uint32_t number = 0x1090;
    std::optional<std::uint32_t> SystemVersion() override { return number; }
    std::optional<qvk::platform::VersionTriple> SystemVersionParts() override { return std::nullopt; }
    bool IsOperatingSystemAtLeast(const qvk::platform::VersionTriple&) override { return true; }
    std::string OperatingSystemVersionString() override { return {}; }
};

// A number text that does not convert whole ends the process by design; such lists are skipped.
bool ConvertsWhole(const qvk::Value& value) {
    const std::string* text = value.AsString();
    if (!text) return true;
    char* end = nullptr;
    std::strtol(text->c_str(), &end, 0);
    return *end == '\0';
}

bool NumbersConvertWhole(const qvk::Array& list) {
    for (const qvk::Value& entry : list) {
        const qvk::Value& usb = entry["USB"];
        if (!ConvertsWhole(usb["Vendor"]) || !ConvertsWhole(usb["Product"])) return false;
        if (const qvk::Array* products = usb["Product"].AsArray())
            for (const qvk::Value& product : *products)
                if (!ConvertsWhole(product)) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    static FixedVersion version;
    static qvk::platform::Replace<qvk::platform::Gestalt> replaced(version);
    version.number = 0x1000 | data[0];
    std::optional<qvk::Value> root =
        qvk::platform::ParsePropertyList(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    const qvk::Array* list = root ? root->AsArray() : nullptr;
    if (!list || !NumbersConvertWhole(*list)) return 0;
    QVK_Framework_DeviceListUSBPairs(*list);
    for (const qvk::Value& entry : *list)
        if (const qvk::Array* drivers = entry["Drivers"].AsArray())
            for (const qvk::Value& name : *drivers)
                if (const std::string* text = name.AsString()) UseDriver(*text);
    return 0;
}
