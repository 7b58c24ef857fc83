#include "framework/log/log_entry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

#include "framework/base/text_encoding.h"
#include "platform/home.h"
#include "platform/service.h"
#include "platform/thread_dictionary.h"

namespace qvk::log {

std::optional<std::string> MessageText(const char* format, std::initializer_list<FormatArg> args, bool escapeNewlines) {
    if (!format) return std::nullopt;
    if (!QVK_Framework_IsUTF8(format)) return std::string(kMessageError);
    std::string text = FormatArgs(format, args);
    if (escapeNewlines) {
        std::string escaped;
        escaped.reserve(text.size());
        for (char c : text) {
            if (c == '\n')
                escaped += "\\n";
            else
                escaped += c;
        }
        text = std::move(escaped);
    }
    return text;
}

LogStream OpenLogFile(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) return nullptr;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || ftruncate(fd, 0) != 0) {
        close(fd);
        return nullptr;
    }
    std::FILE* stream = fdopen(fd, "w");
    if (!stream) close(fd);
    return LogStream(stream);
}

std::string DateText(const char* format) {
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    char millis[24];
    std::snprintf(millis, sizeof millis, "%03ld", static_cast<long>(now.tv_usec / 1000));
    std::string pattern;
    for (const char* p = format; *p; ++p) {
        if (p[0] == '%' && p[1] == 'F') {
            pattern += millis;
            ++p;
        } else {
            pattern += *p;
        }
    }
    char out[128];
    std::size_t n = std::strftime(out, sizeof out, pattern.c_str(), &local);
    return std::string(out, n);
}

bool CheckForFile(const char* name) {
    std::string inTmp = std::string("/tmp/") + name;
    if (access(inTmp.c_str(), F_OK) == 0) return true;
    std::string inHome = platform::Use<platform::Home>().HomeDirectory() + "/" + name;
    return access(inHome.c_str(), F_OK) == 0;
}

bool StandardErrorIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void WriteLine(std::FILE* stream, const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

}  // namespace qvk::log

namespace {
constexpr const char* kThreadNameKey = "QVK_Thread_Name";
}

void QVK_Framework_Log_SetThreadName(const std::string& name) {
    qvk::platform::CurrentThreadDictionary()[kThreadNameKey] = qvk::Value(name);
}

std::string QVK_Framework_Log_GetThreadName() {
    const auto& dict = qvk::platform::CurrentThreadDictionary();
    auto it = dict.find(kThreadNameKey);
    if (it != dict.end())
        if (const std::string* name = it->second.AsString()) return *name;
    return "Unknown";
}
