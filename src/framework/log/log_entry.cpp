#include "framework/log/log_entry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

#include "framework/base/text_encoding.h"
#include "platform/home.h"
#include "platform/home_user.h"
#include "platform/service.h"
#include "platform/thread_dictionary.h"
#include "platform/unique_fd.h"

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

LogStream OpenLogFile(const std::string& path, LogPlace place) {
    std::optional<platform::AsHomeUser> asUser;
    if (place == LogPlace::Home && !asUser.emplace().Active()) return nullptr;
    platform::UniqueFd fd(
        open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666));
    struct stat st {};
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1) return nullptr;
    // Another user's file in /tmp is theirs to keep.
    if (place == LogPlace::Tmp && st.st_uid != geteuid()) return nullptr;
    if (ftruncate(fd.get(), 0) != 0) return nullptr;
    std::FILE* stream = fdopen(fd.get(), "w");
    if (stream) fd.release();
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
    struct stat st {};
    if (fstatat(AT_FDCWD, (std::string("/tmp/") + name).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return true;
    return platform::ExistsInHome(platform::Use<platform::Home>().HomeDirectory() + "/" + name);
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
