// Steps shared by the full uninstall and the drivers-only uninstall.
#pragma once

#include <cstddef>
#include <string>

// The bounds of the fixed buffers of driver removal: a path or command that would not fit in them
// (terminating zero included) is refused, never cut.
inline constexpr std::size_t kDriverPathLimit = 1024;
inline constexpr std::size_t kCommandLimit = 1024;

// Ends the process through an assertion unless the real or the effective user is the super-user,
// then logs both ids.
void RequireSuperUser(const char* function, const char* source);
// Logs "uid: %u euid: %u".
void LogUserIDs(const char* function, const char* source);

// "<application folder without its extension><suffix>": the companion application beside it.
std::string CompanionApplication(const char* suffix);

// Runs `format`, whose one "%s" stands between double quotes, with `path` through the shell. A
// path that could leave the quotes, or a command longer than the command buffer, is refused with
// a log line of type 2 and nothing is run; false then.
bool RunQuotedCommand(const char* function, const char* source, const char* format, const std::string& path);

// Renames the hidden data folder "<home>/.<bundle name>" to
// "<home>/.Trash/<bundle name> UserData <microseconds since 1970, hexadecimal>"; a failure is logged.
void MoveUserDataToTrash(const char* function, const char* source);
