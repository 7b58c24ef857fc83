#include "launcher/uninstall.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>

#include "framework/base/identity.h"
#include "framework/base/shell_quote.h"
#include "framework/base/system_version.h"
#include "framework/basic/tidyup.h"
#include "framework/connection/privileged_connection_config.h"
#include "framework/drivers/driver_list.h"
#include "framework/log/logging.h"
#include "launcher/alert.h"
#include "launcher/delete_app.h"
#include "launcher/kill_app.h"
#include "launcher/my_user.h"
#include "launcher/strings.h"
#include "launcher/uninstall_support.h"
#include "platform/format.h"
#include "platform/process_identity.h"
#include "platform/processes.h"
#include "platform/service.h"
#include "platform/shell.h"

namespace {

constexpr const char* kSource = "MyAutoCleanup";
constexpr const char* kExtensions = "/System/Library/Extensions";
constexpr const char* kModemScript = "/Library/Modem Scripts/Quorvik Virtual Modem";

// The number of characters of a UTF-8 text.
std::size_t CharacterCount(const std::string& text) {
    std::size_t count = 0;
    for (char c : text)
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++count;
    return count;
}

// A driver name must name one entry of the driver folder: anything else would reach elsewhere.
bool IsEntryName(const std::string& name) { return name.find('/') == std::string::npos && name != "." && name != ".."; }

// Unloads and deletes every installed driver of the list whose package copy has the same
// modification time; true when at least one was.
bool RemovePackageDrivers(const std::string& bundlePath) {
    constexpr const char* kFunction = "Launcher_PerformCleanup";
    bool removed = false;
    for (const qvk::Value& entry : GetDriversFromNetworksBlocker(bundlePath).members) {
        const std::string& name = *entry.AsString();
        if (CharacterCount(name) <= 7) continue;
        if (!IsEntryName(name)) {
            QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 2, "Not a driver name: \"%@\"", name);
            continue;
        }
        std::string installed = qvk::Format("%s/%@", kExtensions, name);
        struct stat installedStatus {};
        if (stat(installed.c_str(), &installedStatus) != 0) continue;
        std::string copy = qvk::Format("%@/Contents/Drivers-Install/Drivers/%@", bundlePath, name);
        struct stat copyStatus {};
        if (stat(copy.c_str(), &copyStatus) != 0) continue;
        // Another time means another origin: that driver is not the package's to remove.
        if (installedStatus.st_mtime != copyStatus.st_mtime) continue;
        QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Removing driver: %@", installed);
        RunQuotedCommand(kFunction, kSource, "/sbin/kextunload \"%s\"", installed);
        RunQuotedCommand(kFunction, kSource, "rm -rf \"%s\"", installed);
        removed = true;
    }
    return removed;
}

// Runs "/bin/rm -rf <path>" in a child with an empty environment and waits for it.
void RemoveReceipt(const char* function, const std::string& path) {
    qvk::platform::ChildProgram remove{"/bin/rm", {"/bin/rm", "-rf", path}, {}, std::nullopt, false};
    QVK_Framework_Log_Internal(function, kSource, __LINE__, 5, "%s, %s, %s", remove.arguments[0].c_str(),
                               remove.arguments[1].c_str(), remove.arguments[2].c_str());
    auto& processes = qvk::platform::Use<qvk::platform::Processes>();
    pid_t pid = processes.Start(remove);
    if (pid > 0) {
        QVK_Framework_Log_Internal(function, kSource, __LINE__, 5, nullptr);
        processes.Wait(pid);
    }
}

// A receipt is named after the package; a name that would lead out of the receipts folder is
// refused.
bool IsReceiptName(const char* function, const char* name) {
    if (std::string(name).find('/') == std::string::npos) return true;
    QVK_Framework_Log_Internal(function, kSource, __LINE__, 2, "Not a receipt name: \"%s\"", name);
    return false;
}

}  // namespace

void Launcher_PerformCleanup(bool killApp, const std::string& bundlePath) {
    constexpr const char* kFunction = "Launcher_PerformCleanup";
    RequireSuperUser(kFunction, kSource);
    Launcher_Delete(CompanionApplication(" Uninstall.app"));

    if (RemovePackageDrivers(bundlePath)) {
        unlink("/System/Libraries/Extensions.mkext");
        qvk::platform::Use<qvk::platform::Shell>().System("killall -HUP kextd");
    }

    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Removing \"%s\"", kModemScript);
    unlink(kModemScript);

    if (QVK_Framework_SystemVersion() > 0x1050) KillReceipts_LeopardPlus();
    // Still the super-user: the super-user's own domains go first.
    KillDefaults();
    QVK_Framework_Connection_Delete(1);
    if (killApp) Launcher_KillApp();

    // From here on everything runs as the user.
    qvk::platform::Use<qvk::platform::ProcessIdentity>().BecomeUser(MyUser);
    LogUserIDs(kFunction, kSource);
    QVK_Framework_Tidyup(true);
    KillDefaults();
    MoveUserDataToTrash(kFunction, kSource);

    if (QVK_Framework_SystemVersion() <= 0x105F) KillReceipts();
    if (killApp) Launcher_KillApp();
}

void KillReceipts_LeopardPlus() {
    constexpr const char* kFunction = "KillReceipts_LeopardPlus";
    const char* const paths[] = {"/var/db/receipts/%@.package.plist", "/var/db/receipts/%@.package.bom"};
    bool first = true;
    for (const char* format : paths) {
        std::string path = qvk::Format(format, QVK_Framework_Project_Identifier);
        QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Trying to delete receipts path: %@", path);
        if (IsReceiptName(kFunction, QVK_Framework_Project_Identifier.c_str())) RemoveReceipt(kFunction, path);
        if (first) QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, nullptr);
        first = false;
    }
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, nullptr);
}

void KillReceipts() {
    constexpr const char* kFunction = "KillReceipts";
    std::string path = qvk::Format("/Library/Receipts/%s.pkg", QVK_Framework_Project_Name_Bundle);
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Path: %@", path);
    if (IsReceiptName(kFunction, QVK_Framework_Project_Name_Bundle)) RemoveReceipt(kFunction, path);
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, nullptr);
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, nullptr);
}

void KillDefaults() {
    constexpr const char* kFunction = "KillDefaults";
    auto& shell = qvk::platform::Use<qvk::platform::Shell>();
    std::string command = qvk::Format("/usr/bin/defaults delete \"%@\"", QVK_Framework_Project_Identifier);
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Executing: %@", command);
    if (QVK_Framework_SafeInDoubleQuotes(QVK_Framework_Project_Identifier))
        shell.System(command);
    else
        QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 2,
                                   "Not running \"%@\": the identifier cannot be quoted", command);
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Executing:/usr/bin/defaults delete Quorvik.Updater");
    shell.System("/usr/bin/defaults delete Quorvik.Updater");
}

qvk::platform::AlertReturn Launcher_ShowRestartMessage() {
    std::string message =
        qvk::Format(LocalizedText("STRING_LAUNCHER_MESSAGE_DEINSTALL"), QVK_Framework_ApplicationName);
    QVK_Framework_Log_Internal("Launcher_ShowRestartMessage", kSource, __LINE__, 5, "Message: %@", message);
    // A panel of its own process comes to the front by itself.
    return ShowAlertPanel(QVK_Framework_ApplicationName, message, "OK", std::nullopt);
}
