#include "launcher/file_path.h"

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "platform/format.h"

std::optional<std::string> QVK_Framework_FilePath(const char* name) {
    std::string folder = ApplicationFolder();
    if (!name || folder.empty()) {
        QVK_Framework_Log_Internal("QVK_Framework_FilePath", "FilePath", 21, 5, "-> nil");
        return std::nullopt;
    }
    std::string path = qvk::Format("%@/Contents/Resources/%s", folder, name);
    QVK_Framework_Log_Internal("QVK_Framework_FilePath", "FilePath", 17, 5, "-> %@", path);
    return path;
}
