#include "framework/base/command_output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "platform/service.h"
#include "platform/shell.h"

namespace {
constexpr const char* kFunction = "QVK_Framework_GetCommandOutput";
constexpr const char* kSource = "GetCommandOutput";
}  // namespace

std::optional<std::string> QVK_Framework_GetCommandOutput(const char* command) {
    std::optional<std::string> result;
    int status = 0;
    if (std::optional<std::string> bytes = qvk::platform::Use<qvk::platform::Shell>().Output(command, status)) {
        result = QVK_Framework_IsUTF8(*bytes) ? *bytes : QVK_Framework_DecodeLatin1(*bytes);
        QVK_Framework_Log_Internal(kFunction, kSource, 41, 5, "Status: %s -> %d\n", command, status);
        std::fflush(stdout);
    } else {
        QVK_Framework_Log_Internal(kFunction, kSource, 46, 2, "%s: %s", command, std::strerror(errno));
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 48, 5, "%s -> %@", command, result);
    return result;
}
