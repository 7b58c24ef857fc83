// The Launcher's one port module: it watches the USB bus for the package's modems, those of the
// built-in table first, then those of the device list file, and asks for the application to be
// launched when at least one of them is plugged in.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include "framework/ports/port_module.h"

class QVK_Framework_Port_Module_USBLauncher : public QVK_Framework_Port_Module {
public:
    // Appends a matching dictionary for the pair unless its key "%04x/%04x" is already in `armed`.
    void AddMatchingDict(qvk::Array& dictionaries, std::unordered_set<std::string>& armed, std::int32_t vendor,
                         std::int32_t product);
    // One dictionary per distinct pair: the built-in rows, then "<launcher>/../Contents/Resources/
    // NetworkBlocker.xml".
    std::optional<qvk::Array> QVK_Framework_PortModule_MatchingDictionaries() override;
    // Launches the application; the argument is not looked at.
    void LaunchApp(const qvk::Value* argument);
    // Logs every device of the batch and schedules one launch when at least one could be read.
    void QVK_Framework_PortModule_Publish(qvk::platform::UsbIterator iterator) override;

private:
    // Ends with the module, so that a launch scheduled for a destroyed module does nothing.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// The single module, created by QVK_Framework_Use_USBLauncher.
extern std::unique_ptr<QVK_Framework_Port_Module_USBLauncher> MyModule;

// Creates the module once; true when it exists.
bool QVK_Framework_Use_USBLauncher();

// The service's registry property `key` as a signed 32-bit number; false when it is absent or is no
// such number.
bool GetNumber(qvk::platform::UsbService service, const char* key, std::int32_t& result);
