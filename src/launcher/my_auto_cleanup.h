// The Launcher's answer to its application being dragged into the Trash (the package removes
// itself) or moved (autostart follows it and the Launcher starts again from the new place).
#pragma once

#include <memory>

#include "framework/basic/auto_cleanup.h"

class MyAutoCleanup : public QVK_Framework_AutoCleanup {
public:
    // Ends the process or replaces it; a null event does nothing.
    void QVK_Framework_FileMonitor_Triggered(const qvk::Data* event) override;
};

// The one watch; null until DoAutoCleanup made it, and null for good when it could not be made.
extern std::shared_ptr<MyAutoCleanup> AutoCleanup;

// Removes this build's "QVK Autostart Installed <build>" user default and starts the watch once.
void DoAutoCleanup();
