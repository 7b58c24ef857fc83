#include "framework/log/logging.h"

#include <unistd.h>

#include <array>
#include <mutex>

#include "framework/base/assert.h"
#include "framework/base/global_mutex.h"
#include "framework/base/identity.h"
#include "framework/base/system_version.h"

bool QVK_Framework_NoLogFile = false;

namespace qvk::log {

namespace {

constexpr const char* kTypeNames[] = {"VirtualModem", "Modem",  "Errors",     "Port",  "User",   "Trace",
                                      "Bluetooth",    "Assert", "DebugAlert", "Debug", "Report", "WiFi"};
constexpr std::int32_t kTypeModem = 1;
constexpr std::int32_t kTypeBluetooth = 6;

// Not looked up yet; after the lookup the class or null.
QVK_Framework_CustomLoggerClass* const kNotLookedUp = reinterpret_cast<QVK_Framework_CustomLoggerClass*>(1);
QVK_Framework_CustomLoggerClass* CustomLogger = kNotLookedUp;

std::mutex ownLock;
std::array<LogStream, 32> LogFile;
LogStream LogFileCombined;
pid_t ProcessID = 0;

QVK_Framework_CustomLoggerClass* TheCustomLogger() {
    QVK_Framework_GlobalLock lock;
    if (CustomLogger == kNotLookedUp)
        CustomLogger =
            dynamic_cast<QVK_Framework_CustomLoggerClass*>(QVK_Framework_ClassNamed("QVK_Framework_CustomLogger"));
    return CustomLogger;
}

void WriteLogHeader(std::FILE* stream) {
    if (!stream) return;
    std::fputs(Format("Project %s Build %s\n\n", QVK_Framework_Project_Name, QVK_Framework_BuildID_App).c_str(),
               stream);
    std::fputs(Format("System version %08x\n", QVK_Framework_SystemVersion()).c_str(), stream);
    std::fputs("\n", stream);
    std::fflush(stream);
}

// The per-type or combined file, reopened under the current process id when it changed: the one
// remembered id is shared, so after a fork only the first file checked is reopened for the child.
void OpenIfNeeded(LogStream& stream, const std::string& path) {
    pid_t pid = getpid();
    if (pid == ProcessID && stream) return;
    ProcessID = pid;
    // A forked child drops the parent's handle without closing it.
    (void)stream.release();
    stream = OpenLogFile(path, LogPlace::Tmp);
    WriteLogHeader(stream.get());
}

}  // namespace

const char* MainTypeName(std::int32_t type) {
    auto index = static_cast<std::uint32_t>(type);
    return index < std::size(kTypeNames) ? kTypeNames[index] : "Invalid";
}

std::optional<MainLogSwitches> MainLoggerSwitches() {
    bool dolog = CheckForFile("Quorvik-PleaseDoLog");
    // Looked up here, before the logger's own lock is taken: the global mutex is never waited for
    // under the own lock, so a thread that logs while holding the global mutex cannot deadlock.
    QVK_Framework_CustomLoggerClass* custom = TheCustomLogger();
    if (!dolog && (!custom || !custom->QVK_Framework_CustomLogger_PerformLogging())) return std::nullopt;
    // The split marker alone switches nothing on, so it is looked for only when logging is on.
    return MainLogSwitches{dolog, access("/tmp/Quorvik-PleaseDoLog-Split", F_OK) == 0, custom};
}

void WriteMainEntry(const MainLogSwitches& switches, const char* function, const char* file, std::uint32_t line,
                    std::int32_t type, const std::optional<std::string>& message) {
    const char* typeName = MainTypeName(type);
    auto index = static_cast<std::uint32_t>(type);
    // Types beyond the table have no file of their own.
    LogStream* typeFile = index < LogFile.size() ? &LogFile[index] : nullptr;

    std::lock_guard lock(ownLock);
    if (switches.split && !QVK_Framework_NoLogFile && typeFile)
        OpenIfNeeded(*typeFile, Format("/tmp/Quorvik.Log.%d.%s", getpid(), typeName));
    if (switches.dolog && !QVK_Framework_NoLogFile)
        OpenIfNeeded(LogFileCombined, Format("/tmp/Quorvik.Log.%d", getpid()));

    for (int sink = 0; sink < 4; ++sink) {
        std::FILE* stream = nullptr;
        switch (sink) {
        case 0: stream = StandardErrorIsTerminal() ? stderr : nullptr; break;
        case 1: stream = typeFile ? typeFile->get() : nullptr; break;
        case 2: stream = LogFileCombined.get(); break;
        case 3:
            if (switches.custom)
                switches.custom->QVK_Framework_CustomLogger_LogMessage(message, typeName, file, line, function);
            break;
        default: QVK_Framework_AssertionFailed("NO", "QVK_Framework_Log_Internal", "Logging", 364);
        }
        if (!stream || !(switches.dolog || switches.split)) continue;

        std::string date = DateText("%d.%m. %H:%M:%S.%F");
        std::string text;
        if (sink == 2) {
            if (type == kTypeBluetooth)
                text = "BT";
            else
                text = Format("%s: %s: %s:%u(%s): %s", QVK_Framework_Log_GetThreadName(), date, file, line, typeName,
                              function);
            if (message) text += ": " + *message;
        } else {
            if (type == kTypeModem)
                text = date;
            else
                text = Format("%s %s %s %u %s:", QVK_Framework_Log_GetThreadName(), date, file, line, function);
            if (message) text += " " + *message;
        }
        WriteLine(stream, text);
    }
}

void ResetCustomLoggerForTesting() {
    QVK_Framework_GlobalLock lock;
    CustomLogger = kNotLookedUp;
}

}  // namespace qvk::log
