// The base of every device watcher. A module names, through its matching dictionaries, the
// services it cares about; the base class arms a publish and a terminate notification for each
// dictionary on the main run loop and hands every batch to the module's Publish and Terminate
// operations. Modules register themselves in the fixed table Modules; one class operation starts
// them all. Main thread only.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/usb.h"
#include "platform/value.h"

class QVK_Framework_Port_Module {
public:
    // Registers the module in the first empty slot of Modules; a thirteenth module is an assertion.
    QVK_Framework_Port_Module();
    // Empties the module's slot; the notifications armed for it end with it.
    virtual ~QVK_Framework_Port_Module();
    QVK_Framework_Port_Module(const QVK_Framework_Port_Module&) = delete;
    QVK_Framework_Port_Module& operator=(const QVK_Framework_Port_Module&) = delete;

    // The values of Ports.
    std::vector<qvk::Value> objectEnumerator() const;

    // A batch of newly published services; the base drains it.
    virtual void QVK_Framework_PortModule_Publish(qvk::platform::UsbIterator iterator);
    // A batch of terminated services; the base drains it and calls the CheckNoPorts hook.
    virtual void QVK_Framework_PortModule_Terminate(qvk::platform::UsbIterator iterator);
    // Arms both notifications for every matching dictionary; always true.
    bool QVK_Framework_PortModule_AddNotification();
    bool QVK_Framework_PortModule_Start();
    // The dictionaries of the services to watch; none for the base, which watches nothing.
    virtual std::optional<qvk::Array> QVK_Framework_PortModule_MatchingDictionaries();

    // The class operations.
    struct Class {
        // A hook for when the last port is gone; it does nothing in this program.
        static void QVK_Framework_PortModule_CheckNoPorts();
        // Starts the modules slot by slot; stops at the first empty slot or failed start. True only
        // when all 12 slots held a module that started.
        static bool QVK_Framework_PortModule_Start();
    };

    bool IsInitializing() const { return Initializing; }

protected:
    // Where a module keeps what it tracks; the base never adds to it.
    qvk::Dictionary Ports;
    // True while the notifications are armed and the present services delivered for the first time.
    bool Initializing = false;

private:
    // The ports of the armed notifications; they serve for as long as the module lives.
    std::vector<std::unique_ptr<qvk::platform::NotificationPort>> NotificationPorts;
};

inline constexpr std::size_t kQVK_Framework_ModuleSlots = 12;
// The registered modules; the table does not own them, empty slots are null.
extern std::array<QVK_Framework_Port_Module*, kQVK_Framework_ModuleSlots> Modules;

// Takes every service from the iterator and releases it; answers the last (null) value. Draining is
// what re-arms a notification.
qvk::platform::UsbService EmptyIterator(qvk::platform::UsbIterator iterator);
// The notification callbacks: the context is the module.
void PublishCallback(void* refcon, qvk::platform::UsbIterator iterator);
void TerminateCallback(void* refcon, qvk::platform::UsbIterator iterator);
