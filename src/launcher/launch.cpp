#include "launcher/launch.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <optional>
#include <string>

#include "framework/base/global_mutex.h"
#include "framework/base/identity.h"
#include "framework/base/shell_quote.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "launcher/my_user.h"
#include "platform/clock.h"
#include "platform/format.h"
#include "platform/home.h"
#include "platform/home_user.h"
#include "platform/preferences.h"
#include "platform/property_list.h"
#include "platform/service.h"
#include "platform/shell.h"

namespace {

constexpr const char* kFunction = "LaunchMyApplication";
constexpr const char* kSource = "Launch";
// Requests closer than this to the previous one are dropped.
constexpr double kDebounceSeconds = 2.0;

// The time of the previous request that got past the running check.
std::optional<double> PreviousLaunch;

// A preference value as an integer: numbers as they are, cut to 32 bits; a text by its leading
// decimal integer after blanks, 0 when it has none. None for values that have no integer reading.
std::optional<std::int32_t> IntValue(const qvk::Value& value) {
    std::int64_t number = 0;
    if (value.GetInteger(number)) return static_cast<std::int32_t>(number);
    const std::string* text = value.AsString();
    if (!text) return std::nullopt;
    std::size_t i = 0;
    while (i < text->size() && std::isspace(static_cast<unsigned char>((*text)[i]))) ++i;
    bool negative = i < text->size() && (*text)[i] == '-';
    if (i < text->size() && ((*text)[i] == '-' || (*text)[i] == '+')) ++i;
    std::int64_t magnitude = 0;
    for (; i < text->size() && std::isdigit(static_cast<unsigned char>((*text)[i])); ++i)
        magnitude = std::min<std::int64_t>(magnitude * 10 + ((*text)[i] - '0'), std::int64_t{INT_MAX} + 1);
    std::int64_t signedValue = negative ? -magnitude : std::min<std::int64_t>(magnitude, INT_MAX);
    return static_cast<std::int32_t>(signedValue);
}

// False only when the application's domain holds "QVK Run Launcher" with the integer value 0.
bool RunLauncherPreference(const std::string& application) {
    std::optional<qvk::Value> info =
        qvk::platform::ReadPropertyList(qvk::Format("%@/Contents/Info.plist", application));
    const std::string* identifier = info ? (*info)["CFBundleIdentifier"].AsString() : nullptr;
    if (!identifier) return true;
    std::optional<qvk::Dictionary> domain =
        qvk::platform::Use<qvk::platform::Preferences>().PersistentDomainForName(*identifier);
    if (!domain) return true;
    auto entry = domain->find("QVK Run Launcher");
    if (entry == domain->end()) return true;
    std::optional<std::int32_t> value = IntValue(entry->second);
    if (!value) {
        QVK_Framework_Log_Internal(kFunction, kSource, 58, 2, "QVK Run Launcher is no number: %@", entry->second);
        return true;
    }
    return *value != 0;
}

}  // namespace

bool NoLaunchMarkerExists() {
    return qvk::platform::ExistsInHome(
        qvk::Format("%@/.Quorvik-NoLaunch-Brisel", qvk::platform::Use<qvk::platform::Home>().HomeDirectory()));
}

bool ApplicationIsRunning() { return false; }

void LaunchMyApplication() {
    QVK_Framework_Log_Internal(kFunction, kSource, 15, 5, nullptr);

    if (NoLaunchMarkerExists()) std::exit(0);

    if (ApplicationIsRunning()) return;

    double now = qvk::platform::Use<qvk::platform::Clock>().Now();
    bool mayLaunch;
    {
        QVK_Framework_GlobalLock lock;
        mayLaunch = !PreviousLaunch || now - *PreviousLaunch > kDebounceSeconds;
        PreviousLaunch = now;
    }
    if (!mayLaunch) return;

    std::string application = ApplicationFolder();
    if (!RunLauncherPreference(application)) return;

    std::string command = qvk::Format("/usr/bin/open -a \"%@\"", application);
    if (!QVK_Framework_SafeInDoubleQuotes(application)) {
        QVK_Framework_Log_Internal(kFunction, kSource, 78, 2, "Refused, the path could leave its quotes: %@", command);
        return;
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 80, 5, "%@", command);
    // The application is the user's: it starts with the user's identity, as a Mac session would start it.
    qvk::platform::Use<qvk::platform::Shell>().SystemAsUser(QVK_Framework_UnixEncoding(command), MyUser);
}

void ForgetPreviousLaunchForTesting() {
    QVK_Framework_GlobalLock lock;
    PreviousLaunch.reset();
}
