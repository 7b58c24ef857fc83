#include "framework/log/log.h"

#include <cstdlib>
#include <mutex>

#include "framework/base/assert.h"
#include "framework/base/identity.h"
#include "framework/base/system_version.h"
#include "platform/file_read.h"
#include "platform/home.h"
#include "platform/home_user.h"
#include "platform/service.h"

namespace qvk::log {

namespace {

constexpr const char* kMarker = "Quorvik-DoLog";

std::once_flag CheckLogFileChecked;
bool MyLogger = false;
bool TempUser = false;
std::int32_t LogDepth = 0;

std::mutex ownLock;
LogStream LogFileNew;

// The marker's text; none when it is not a regular, single-link file that can be read.
std::optional<std::string> ReadMarker(const std::string& path, bool inHome) {
    std::optional<platform::AsHomeUser> asUser;
    if (inHome && !asUser.emplace().Active()) return std::nullopt;
    return platform::ReadBoundedFile(path, platform::FilePlace::UserGround);
}

bool ReadFileDepth(const char* name) {
    std::optional<std::string> text = ReadMarker(std::string("/tmp/") + name, false);
    if (text) {
        TempUser = true;
    } else {
        text = ReadMarker(platform::Use<platform::Home>().HomeDirectory() + "/" + name, true);
        if (!text) return false;
    }
    LogDepth = GetLogDepth(*text);
    return true;
}

void LogHeader(std::FILE* stream) {
    if (!stream) return;
    std::fputs(Format("Project %s Build %s\n\n", QVK_Framework_Project_Name, QVK_Framework_BuildID_App).c_str(),
               stream);
    std::fputs(Format("System version %08x | Log Depth %d\n", QVK_Framework_SystemVersion(), LogDepth).c_str(), stream);
    std::fputs("\n", stream);
    std::fflush(stream);
}

void OpenDepthFile() {
    std::string timestamp = DateText("%y%m%d.%H%M%S");
    std::string threadPart;
    std::string thread = QVK_Framework_Log_GetThreadName();
    if (thread != "Unknown") {
        for (char c : thread)
            if (c != ' ') threadPart += c;
        threadPart += '.';
    }
    if (TempUser) {
        LogFileNew = OpenLogFile(Format("/tmp/Quorvik.%s%s.log", threadPart, timestamp), LogPlace::Tmp);
        LogHeader(LogFileNew.get());
    } else {
        LogFileNew = OpenLogFile(
            platform::Use<platform::Home>().HomeDirectory() + "/" + Format("Quorvik.%@%@.txt", threadPart, timestamp),
            LogPlace::Home);
    }
}

}  // namespace

std::int32_t GetLogDepth(const std::string& text) {
    return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

const char* DepthTypeAbbreviation(std::int32_t type) {
    switch (type) {
    case 1: return "No";
    case 2: return "Li";
    case 4: return "Dl";
    case 8: return "Fn";
    case 16: return "Re";
    case 32: return "Dg";
    case 64: return "Dp";
    case 128: return "Fl";
    default: return "??";
    }
}

bool DepthLoggerEnabled() {
    std::call_once(CheckLogFileChecked, [] { MyLogger = ReadFileDepth(kMarker); });
    return MyLogger;
}

void WriteDepthEntry(const char* function, const char* file, std::uint32_t line, std::int32_t type,
                     const std::optional<std::string>& message) {
    const char* abbreviation = DepthTypeAbbreviation(type);
    std::lock_guard lock(ownLock);
    if (!LogFileNew) OpenDepthFile();

    for (int sink = 0; sink < 2; ++sink) {
        std::FILE* stream = nullptr;
        switch (sink) {
        case 0: stream = StandardErrorIsTerminal() ? stderr : nullptr; break;
        case 1: stream = LogFileNew.get(); break;
        default: QVK_Framework_AssertionFailed("NO", "QVK_Log_Internal", "Log", 255);
        }
        if (!stream || (LogDepth & type) == 0) continue;
        std::string text = Format("%s %s %s:%u %s%s", DateText("%m/%d %H:%M:%S.%F"), QVK_Framework_Log_GetThreadName(),
                                  file, line, abbreviation, function);
        if (message) text += " " + *message;
        WriteLine(stream, text);
    }
}

}  // namespace qvk::log
