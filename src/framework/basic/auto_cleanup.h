// The watch on the folder that holds the running launcher bundle (the installed application): it
// tells whether that folder now lies in a Trash. What to do about it is the program's subclass's.
#pragma once

#include <optional>
#include <string>

#include "framework/filesystem/file_monitor.h"

class QVK_Framework_AutoCleanup : public QVK_Framework_FileMonitor {
public:
    // Starts watching the folder that holds the running launcher bundle for being deleted or
    // renamed; false when the monitor could not be built (logged by the monitor).
    bool init();
    // Whether the watched folder, wherever it is now, lies below a folder named ".Trash" (in any
    // case); the folder's own name does not count. When `currentPath` is given it receives the
    // folder's current path, none when that could not be read. Changes the working directory for a
    // moment and restores it.
    bool QVK_Framework_AutoCleanup_IsTrashedApp(std::optional<std::string>* currentPath);
};
