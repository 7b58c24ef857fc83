#include "launcher/uninstall_support.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "framework/base/assert.h"
#include "framework/base/identity.h"
#include "framework/base/shell_quote.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "platform/clock.h"
#include "platform/format.h"
#include "platform/home.h"
#include "platform/home_user.h"
#include "platform/process_identity.h"
#include "platform/service.h"
#include "platform/shell.h"

namespace {

// The path without the extension of its last component ("X.app" gives "X"); a name that only
// begins with a dot has none.
std::string DeletingPathExtension(const std::string& path) {
    std::size_t slash = path.rfind('/');
    std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameStart) return path;
    return path.substr(0, dot);
}

// Seconds times 1,000,000 plus microseconds, as the time of day gives them.
std::uint64_t MicrosecondStamp() {
    double now = qvk::platform::Use<qvk::platform::Clock>().Now();
    double seconds = std::floor(now);
    auto micros = static_cast<std::uint64_t>(std::llround((now - seconds) * 1e6));
    if (micros > 999999) micros = 999999;
    return static_cast<std::uint64_t>(seconds) * 1000000 + micros;
}

}  // namespace

void RequireSuperUser(const char* function, const char* source) {
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    QVK_Framework_Assert(process.RealUserID() == 0 || process.EffectiveUserID() == 0, "getuid()==0 || geteuid()==0",
                         function, source, __LINE__);
    LogUserIDs(function, source);
}

void LogUserIDs(const char* function, const char* source) {
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    QVK_Framework_Log_Internal(function, source, __LINE__, 5, "uid: %u euid: %u", process.RealUserID(),
                               process.EffectiveUserID());
}

std::string CompanionApplication(const char* suffix) { return DeletingPathExtension(ApplicationFolder()) + suffix; }

bool RunQuotedCommand(const char* function, const char* source, const char* format, const std::string& path) {
    if (!QVK_Framework_SafeInDoubleQuotes(path)) {
        QVK_Framework_Log_Internal(function, source, __LINE__, 2,
                                   "Not running \"%s\" for \"%@\": the path cannot be quoted", format, path);
        return false;
    }
    std::string command = qvk::Format(format, QVK_Framework_UnixEncoding(path));
    if (command.size() >= kCommandLimit) {
        QVK_Framework_Log_Internal(function, source, __LINE__, 2,
                                   "Not running \"%s\" for \"%@\": the command would exceed %u bytes", format, path,
                                   static_cast<unsigned>(kCommandLimit));
        return false;
    }
    qvk::platform::Use<qvk::platform::Shell>().System(command);
    return true;
}

void MoveUserDataToTrash(const char* function, const char* source) {
    std::uint64_t stamp = MicrosecondStamp();
    std::string home = qvk::platform::Use<qvk::platform::Home>().HomeDirectory();
    std::string from = qvk::Format("%@/.%s", home, QVK_Framework_Project_Name_Bundle);
    std::string to = qvk::Format("%@/.Trash/%s UserData %llx", home, QVK_Framework_Project_Name_Bundle, stamp);
    QVK_Framework_Log_Internal(function, source, __LINE__, 5, "%@ -> %@", from, to);
    int error = 0;
    {
        // The kernel checks the move as it would for the user.
        qvk::platform::AsHomeUser asUser;
        if (!asUser.Active())
            error = EPERM;
        else if (std::rename(from.c_str(), to.c_str()) != 0)
            error = errno;
    }
    if (error != 0)
        QVK_Framework_Log_Internal(function, source, __LINE__, 5, "rename failed: %s", std::strerror(error));
}
