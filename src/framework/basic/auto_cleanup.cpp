#include "framework/basic/auto_cleanup.h"

#include <strings.h>
#include <unistd.h>

#include <climits>
#include <vector>

#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/kernel_queue.h"
#include "platform/service.h"

namespace {

// The working directory's path; none when it can't be read.
std::optional<std::string> WorkingDirectory() {
    std::vector<char> buffer(PATH_MAX);
    for (;;) {
        if (getcwd(buffer.data(), buffer.size())) return std::string(buffer.data());
        if (errno != ERANGE) return std::nullopt;
        buffer.resize(buffer.size() * 2);
    }
}

}  // namespace

bool QVK_Framework_AutoCleanup::init() {
    QVK_Framework_Log_Internal("-[QVK_Framework_AutoCleanup init]", "../../Framework/Library/Basic/AutoCleanup", 18, 5,
                               nullptr);
    std::string bundle = qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath();
    std::size_t slash = bundle.rfind('/');
    std::string folder = slash == std::string::npos ? std::string() : slash == 0 ? "/" : bundle.substr(0, slash);
    return QVK_Framework_FileMonitor_InitForName(folder, qvk::platform::kNoteDelete | qvk::platform::kNoteRename);
}

bool QVK_Framework_AutoCleanup::QVK_Framework_AutoCleanup_IsTrashedApp(std::optional<std::string>* currentPath) {
    std::optional<std::string> saved = WorkingDirectory();
    if (!saved) return false;
    if (fchdir(QVK_Framework_FileMonitor_MonitoredHandle()) != 0) return false;
    std::optional<std::string> path = WorkingDirectory();
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
