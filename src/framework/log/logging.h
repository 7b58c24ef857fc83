// The main logger. Off unless "Quorvik-PleaseDoLog" exists in /tmp or the home folder, or a
// custom logger class asks for entries; "/tmp/Quorvik-PleaseDoLog-Split" adds one file per type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/base/class_registry.h"
#include "framework/log/log_entry.h"

// A program built on the framework receives every entry by registering a class of this kind
// under the name "QVK_Framework_CustomLogger".
class QVK_Framework_CustomLoggerClass : public QVK_Framework_Class {
public:
    // Whether to log although no marker file is present.
    virtual bool QVK_Framework_CustomLogger_PerformLogging() = 0;
    virtual void QVK_Framework_CustomLogger_LogMessage(const std::optional<std::string>& message, const char* type,
                                                       const char* file, std::uint32_t line, const char* function) = 0;
};

// When set, no log file is ever opened; the console and the custom logger still get entries.
extern bool QVK_Framework_NoLogFile;

namespace qvk::log {

struct MainLogSwitches {
    bool dolog;
    bool split;
    // The custom logger class, null when there is none.
    QVK_Framework_CustomLoggerClass* custom;
};

// The markers, the custom logger class and its answer; none when this entry is not to be logged.
std::optional<MainLogSwitches> MainLoggerSwitches();

void WriteMainEntry(const MainLogSwitches& switches, const char* function, const char* file, std::uint32_t line,
                    std::int32_t type, const std::optional<std::string>& message);

const char* MainTypeName(std::int32_t type);

// Forgets the cached custom logger class, so that tests can change it.
void ResetCustomLoggerForTesting();

}  // namespace qvk::log

template <class... Args>
void QVK_Framework_Log_Internal(const char* function, const char* file, std::uint32_t line, std::int32_t type,
                                const char* format, const Args&... args) {
    auto switches = qvk::log::MainLoggerSwitches();
    if (!switches) return;
    qvk::log::WriteMainEntry(*switches, function, file, line, type,
                             qvk::log::MessageText(format, {qvk::FormatArg(args)...}, true));
}
