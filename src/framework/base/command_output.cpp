#include "framework/base/command_output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"

namespace {
constexpr const char* kFunction = "QVK_Framework_GetCommandOutput";
constexpr const char* kSource = "GetCommandOutput";
}  // namespace

std::optional<std::string> QVK_Framework_GetCommandOutput(const char* command) {
    std::optional<std::string> result;
    if (std::FILE* pipe = popen(command, "r")) {
        std::string bytes;
        int c;
        while ((c = std::fgetc(pipe)) != EOF) bytes += static_cast<char>(c);
        if (std::ferror(pipe)) {
            QVK_Framework_Log_Internal(kFunction, kSource, 37, 2, "%s: %s", command, std::strerror(errno));
        } else {
            result = QVK_Framework_IsUTF8(bytes) ? bytes : QVK_Framework_DecodeLatin1(bytes);
        }
        int status = pclose(pipe);
        QVK_Framework_Log_Internal(kFunction, kSource, 41, 5, "Status: %s -> %d\n", command, status);
        std::fflush(stdout);
    } else {
        QVK_Framework_Log_Internal(kFunction, kSource, 46, 2, "%s: %s", command, std::strerror(errno));
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 48, 5, "%s -> %@", command, result);
    return result;
}
