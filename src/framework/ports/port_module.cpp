#include "framework/ports/port_module.h"

#include "framework/base/assert.h"
#include "framework/log/logging.h"
#include "platform/service.h"

namespace {

constexpr const char* kSource = "../../Framework/Framework/Port_Module";

qvk::platform::Usb& Registry() { return qvk::platform::Use<qvk::platform::Usb>(); }

}  // namespace

std::array<QVK_Framework_Port_Module*, kQVK_Framework_ModuleSlots> Modules{};

QVK_Framework_Port_Module::QVK_Framework_Port_Module() {
    for (QVK_Framework_Port_Module*& slot : Modules) {
        if (!slot) {
            slot = this;
            return;
        }
    }
    QVK_Framework_AssertionFailed("NO", "-[QVK_Framework_Port_Module init]", kSource, 78);
}

QVK_Framework_Port_Module::~QVK_Framework_Port_Module() {
    // The scan ends at the first hole: a module behind a hole is not found.
    for (QVK_Framework_Port_Module*& slot : Modules) {
        if (!slot) break;
        if (slot == this) slot = nullptr;
    }
}

std::vector<qvk::Value> QVK_Framework_Port_Module::objectEnumerator() const {
    std::vector<qvk::Value> values;
    values.reserve(Ports.size());
    for (const auto& [key, value] : Ports) values.push_back(value);
    return values;
}

void QVK_Framework_Port_Module::QVK_Framework_PortModule_Publish(qvk::platform::UsbIterator iterator) {
    EmptyIterator(iterator);
}

void QVK_Framework_Port_Module::QVK_Framework_PortModule_Terminate(qvk::platform::UsbIterator iterator) {
    EmptyIterator(iterator);
    QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_CheckNoPorts();
}

std::optional<qvk::Array> QVK_Framework_Port_Module::QVK_Framework_PortModule_MatchingDictionaries() {
    return std::nullopt;
}

bool QVK_Framework_Port_Module::QVK_Framework_PortModule_AddNotification() {
    // Held as the logged object itself: no copy of every dictionary for a log line that may not be
    // written.
    std::optional<qvk::Value> dictionaries;
    if (std::optional<qvk::Array> made = QVK_Framework_PortModule_MatchingDictionaries())
        dictionaries.emplace(std::move(*made));
    QVK_Framework_Log_Internal("-[QVK_Framework_Port_Module QVK_Framework_PortModule_AddNotification]", kSource, 180, 5,
                               "%@", dictionaries ? &*dictionaries : nullptr);

    Initializing = true;
    if (dictionaries) {
        for (const qvk::Value& dictionary : *dictionaries->AsArray()) {
            std::unique_ptr<qvk::platform::NotificationPort> port = Registry().NotificationPortCreate();
            if (!port || !port->AddSourceToMainRunLoop()) continue;
            qvk::platform::UsbIterator iterator;
            if (!port->AddMatchingNotification(qvk::platform::kTerminatedNotification, dictionary, TerminateCallback,
                                               this, iterator))
                continue;
            TerminateCallback(this, iterator);
            if (!port->AddMatchingNotification(qvk::platform::kPublishNotification, dictionary, PublishCallback, this,
                                               iterator))
                continue;
            PublishCallback(this, iterator);
            NotificationPorts.push_back(std::move(port));
        }
    }
    Initializing = false;
    return true;
}

bool QVK_Framework_Port_Module::QVK_Framework_PortModule_Start() { return QVK_Framework_PortModule_AddNotification(); }

void QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_CheckNoPorts() {}

bool QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start() {
    for (QVK_Framework_Port_Module* module : Modules)
        if (!module || !module->QVK_Framework_PortModule_Start()) return false;
    return true;
}

qvk::platform::UsbService EmptyIterator(qvk::platform::UsbIterator iterator) {
    qvk::platform::Usb& registry = Registry();
    qvk::platform::UsbService service;
    while ((service = registry.IteratorNext(iterator))) registry.ObjectRelease(service);
    return service;
}

void PublishCallback(void* refcon, qvk::platform::UsbIterator iterator) {
    static_cast<QVK_Framework_Port_Module*>(refcon)->QVK_Framework_PortModule_Publish(iterator);
}

void TerminateCallback(void* refcon, qvk::platform::UsbIterator iterator) {
    static_cast<QVK_Framework_Port_Module*>(refcon)->QVK_Framework_PortModule_Terminate(iterator);
}
