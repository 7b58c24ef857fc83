#include "launcher/usb_launcher.h"

#include <limits>

#include "framework/drivers/device_list.h"
#include "framework/log/logging.h"
#include "launcher/launch.h"
#include "platform/bundle.h"
#include "platform/format.h"
#include "platform/run_loop.h"
#include "platform/service.h"

namespace {

constexpr const char* kSource = "USBLauncher";

qvk::platform::Usb& Registry() { return qvk::platform::Use<qvk::platform::Usb>(); }

}  // namespace

std::unique_ptr<QVK_Framework_Port_Module_USBLauncher> MyModule;

bool QVK_Framework_Use_USBLauncher() {
    if (!MyModule) MyModule = std::make_unique<QVK_Framework_Port_Module_USBLauncher>();
    return MyModule != nullptr;
}

bool GetNumber(qvk::platform::UsbService service, const char* key, std::int32_t& result) {
    std::optional<qvk::Value> property = Registry().RegistryEntryCreateCFProperty(service, key);
    std::int64_t number = 0;
    if (!property || !property->IsNumber() || !property->GetInteger(number)) return false;
    if (number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<std::int32_t>::max())
        return false;
    result = static_cast<std::int32_t>(number);
    return true;
}

void QVK_Framework_Port_Module_USBLauncher::AddMatchingDict(qvk::Array& dictionaries,
                                                            std::unordered_set<std::string>& armed, std::int32_t vendor,
                                                            std::int32_t product) {
    std::string key = qvk::Format("%04x/%04x", vendor, product);
    if (armed.count(key)) return;
    std::optional<qvk::Value> matching = Registry().ServiceMatching(qvk::platform::kUsbDeviceClass);
    if (!matching || !matching->AsDictionary()) return;
    qvk::Dictionary& dict = *matching->AsDictionary();
    dict[qvk::platform::kUsbVendorKey] = qvk::Value(vendor);
    dict[qvk::platform::kUsbProductKey] = qvk::Value(product);
    dictionaries.push_back(std::move(*matching));
    armed.insert(std::move(key));
}

std::optional<qvk::Array> QVK_Framework_Port_Module_USBLauncher::QVK_Framework_PortModule_MatchingDictionaries() {
    qvk::Array dictionaries;
    std::unordered_set<std::string> armed;
    for (const QVK_Framework_DeviceRow& row : Devices) AddMatchingDict(dictionaries, armed, row.Vendor, row.Product);

    std::string path = qvk::Format("%@/../Contents/Resources/NetworkBlocker.xml",
                                   qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath());
    // Held as the logged object itself: no copy of a long list for a log line that may not be written.
    std::optional<qvk::Value> list;
    if (std::optional<qvk::Array> read = QVK_Framework_ReadDeviceList(path)) list.emplace(std::move(*read));
    QVK_Framework_Log_Internal("-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_MatchingDictionaries]",
                               kSource, 111, 5, "%@ -> %@", path, list ? &*list : nullptr);
    if (list)
        for (const QVK_Framework_USBPair& pair : QVK_Framework_DeviceListUSBPairs(*list->AsArray()))
            AddMatchingDict(dictionaries, armed, pair.Vendor, pair.Product);
    return dictionaries;
}

void QVK_Framework_Port_Module_USBLauncher::LaunchApp(const qvk::Value*) { LaunchMyApplication(); }

void QVK_Framework_Port_Module_USBLauncher::QVK_Framework_PortModule_Publish(qvk::platform::UsbIterator iterator) {
    constexpr const char* kFunction = "-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_Publish:]";
    QVK_Framework_Log_Internal(kFunction, kSource, 202, 5, nullptr);
    bool found = false;
    qvk::platform::Usb& registry = Registry();
    while (qvk::platform::UsbService service = registry.IteratorNext(iterator)) {
        std::int32_t vendor = 0;
        std::int32_t product = 0;
        if (GetNumber(service, qvk::platform::kUsbVendorKey, vendor) &&
            GetNumber(service, qvk::platform::kUsbProductKey, product)) {
            QVK_Framework_Log_Internal(kFunction, kSource, 212, 5, "Vendor 0x%04x Product 0x%04x", vendor, product);
            found = true;
        }
        registry.ObjectRelease(service);
    }
    if (!found) return;
    std::weak_ptr<bool> alive = alive_;
    qvk::platform::Use<qvk::platform::RunLoop>().PerformDeferred([this, alive] {
        if (alive.lock()) LaunchApp(nullptr);
    });
}
