// What both loggers share: the message text of an entry, thread names, dates and log files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "platform/format.h"

namespace qvk::log {

constexpr const char* kMessageError = "Error while making log message";

// The entry's message: none for a null format; a format that is no text gives kMessageError.
// The main logger keeps an entry on one line by writing each newline as backslash and "n".
std::optional<std::string> MessageText(const char* format, std::initializer_list<FormatArg> args, bool escapeNewlines);

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using LogStream = std::unique_ptr<std::FILE, FileCloser>;

enum class LogPlace {
    // /tmp: the file must be new or already the effective user's.
    Tmp,
    // The home folder: opened with the home user's file-system identity.
    Home,
};

// Opens a log file for writing from its start. It is opened without following a symbolic link and
// without blocking; a hard-linked file or anything but a regular file at the path is refused, so a
// log never writes through a planted name and a planted pipe never stalls the caller.
LogStream OpenLogFile(const std::string& path, LogPlace place);

// The current local time in strftime's `format`, where "%F" stands for the milliseconds.
std::string DateText(const char* format);

// True when "/tmp/<name>" or "<home>/<name>" exists (a symbolic link counts as itself).
bool CheckForFile(const char* name);

bool StandardErrorIsTerminal();

void WriteLine(std::FILE* stream, const std::string& line);

}  // namespace qvk::log

void QVK_Framework_Log_SetThreadName(const std::string& name);
std::string QVK_Framework_Log_GetThreadName();
