#include "launcher/file_path.h"

#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/format.h"
#include "platform/service.h"

std::optional<std::string> QVK_Framework_FilePath(const char* name) {
    std::string bundle = qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath();
    if (!name || bundle.empty()) {
        QVK_Framework_Log_Internal("QVK_Framework_FilePath", "FilePath", 21, 5, "-> nil");
        return std::nullopt;
    }
    auto slash = bundle.rfind('/');
    std::string folder = slash == std::string::npos ? "" : slash == 0 ? "/" : bundle.substr(0, slash);
    std::string path = qvk::Format("%@/Contents/Resources/%s", folder, name);
    QVK_Framework_Log_Internal("QVK_Framework_FilePath", "FilePath", 17, 5, "-> %@", path);
    return path;
}
