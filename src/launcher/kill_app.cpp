#include "launcher/kill_app.h"

#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "framework/base/command_output.h"
#include "framework/base/identity.h"
#include "framework/base/shell_quote.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "platform/format.h"
#include "platform/process_signals.h"
#include "platform/service.h"

namespace {

constexpr const char* kFunction = "Launcher_KillApp";
constexpr const char* kSource = "KillApp";

// The line's integer value as the platform's strings give it: leading blanks, an optional sign and
// digits; 0 when there are none, clamped to the range of int.
long long IntValue(const std::string& line) {
    long long value = std::strtoll(line.c_str(), nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return value;
}

}  // namespace

void Launcher_KillApp() {
    std::string application = ApplicationFolder();
    if (!QVK_Framework_SafeInDoubleQuotes(application)) {
        QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 2,
                                   "Not looking for processes of \"%@\": the path cannot be quoted", application);
        return;
    }
    std::string command = qvk::Format("ps -A -o pid -o comm | grep \"%s\" | sed -e \"s/[ ]*\\([0-9][0-9]*\\).*/\\1/g\"",
                                      QVK_Framework_UnixEncoding(application));
    std::optional<std::string> output = QVK_Framework_GetCommandOutput(command.c_str());
    if (!output || output->empty()) return;

    const pid_t self = getpid();
    std::string_view rest(*output);
    while (!rest.empty()) {
        std::size_t end = rest.find('\n');
        std::string line(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        long long pid = IntValue(line);
        if (pid == 0) break;
        // A negative number would signal a whole process group; "ps" never lists one.
        if (pid < 0) {
            QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 2, "Not a process id: %@", line);
            continue;
        }
        if (pid != self) qvk::platform::Use<qvk::platform::ProcessSignals>().Kill(static_cast<pid_t>(pid), SIGTERM);
    }
}
