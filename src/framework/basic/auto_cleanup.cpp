#include "framework/basic/auto_cleanup.h"

#include <strings.h>
#include <unistd.h>

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "platform/kernel_queue.h"
#include "platform/path.h"

bool QVK_Framework_AutoCleanup::init() {
    QVK_Framework_Log_Internal("-[QVK_Framework_AutoCleanup init]", "../../Framework/Library/Basic/AutoCleanup", 18, 5,
                               nullptr);
    return QVK_Framework_FileMonitor_InitForName(ApplicationFolder(),
                                                 qvk::platform::kNoteDelete | qvk::platform::kNoteRename);
}

bool QVK_Framework_AutoCleanup::QVK_Framework_AutoCleanup_IsTrashedApp(std::optional<std::string>* currentPath) {
    std::optional<std::string> saved = qvk::platform::WorkingDirectory();
    if (!saved) return false;
    if (fchdir(QVK_Framework_FileMonitor_MonitoredHandle()) != 0) return false;
    std::optional<std::string> path = qvk::platform::WorkingDirectory();
    if (currentPath) *currentPath = path;
    // Whether this works or not, the answer comes from the path read.
    [[maybe_unused]] int restored = chdir(saved->c_str());
    if (!path) return false;
    QVK_Framework_Log_Internal("-[QVK_Framework_AutoCleanup QVK_Framework_AutoCleanup_IsTrashedApp:]",
                               "../../Framework/Library/Basic/AutoCleanup", 58, 5, "App is in \"%s\"", *path);

    // The folder's own name is dropped unexamined; then every ancestor, the root-level one included.
    std::string rest = *path;
    std::size_t slash = rest.rfind('/');
    if (slash == std::string::npos) return false;
    rest.resize(slash);
    while ((slash = rest.rfind('/')) != std::string::npos) {
        bool trash = strcasecmp(rest.c_str() + slash + 1, ".Trash") == 0;
        rest.resize(slash);
        if (trash) return true;
    }
    return false;
}
