// The depth logger: on when "Quorvik-DoLog" is readable in /tmp or the home folder, looked for once
// per process; the number in that file is the mask of the type bits that are written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/log/log_entry.h"

namespace qvk::log {

bool DepthLoggerEnabled();
void WriteDepthEntry(const char* function, const char* file, std::uint32_t line, std::int32_t type,
                     const std::optional<std::string>& message);
const char* DepthTypeAbbreviation(std::int32_t type);
// The leading decimal integer of the marker's text; 0 when it has none.
std::int32_t GetLogDepth(const std::string& text);

}  // namespace qvk::log

template <class... Args>
void QVK_Log_Internal(const char* function, const char* file, std::uint32_t line, std::int32_t type, const char* format,
                      const Args&... args) {
    if (!qvk::log::DepthLoggerEnabled()) return;
    qvk::log::WriteDepthEntry(function, file, line, type,
                              qvk::log::MessageText(format, {qvk::FormatArg(args)...}, false));
}
