#include "framework/drivers/driver_list.h"

#include <optional>

#include "framework/drivers/device_list.h"
#include "framework/log/logging.h"
#include "platform/format.h"

qvk::Set GetDriversFromNetworksBlocker(const std::string& bundlePath) {
    qvk::Set drivers;
    std::optional<qvk::Array> list =
        QVK_Framework_ReadDeviceList(qvk::Format("%@/Contents/Resources/NetworkBlocker.xml", bundlePath));
    for (const qvk::Value& entry : list.value_or(qvk::Array{})) {
        const qvk::Array* names = entry["Drivers"].AsArray();
        if (!names) continue;
        for (const qvk::Value& name : *names) {
            const std::string* text = name.AsString();
            if (!text) continue;
            if (std::optional<std::string> driver = UseDriver(*text)) drivers.Add(qvk::Value(*driver));
        }
    }
    QVK_Framework_Log_Internal("GetDriversFromNetworksBlocker", "GetDriverList", __LINE__, 5,
                               "GetDriversFromNetworksBlocker(%@): %@", bundlePath, qvk::Value(drivers));
    return drivers;
}
