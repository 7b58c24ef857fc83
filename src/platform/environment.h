// The environment the programs the process starts are given.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvk::platform {

// Set for a Launcher restarted from its package's new place after a move: that run leaves the
// drivers alone.
inline constexpr char kInstallationMoved[] = "QUORVIKCRAP_INSTALLATIONMOVED";

// The entries of `environment` that a program started by the super-user may see, with a fixed
// PATH: HOME, USER, LOGNAME, the language and locale variables, the terminal and the desktop
// session, and kInstallationMoved; TZ only when it names a zone and no file. Language
// and locale values that name a file are left out too, since a locale or message catalog read from
// a file of the caller's would steer the super-user's programs.
std::vector<std::string> SuperUserEnvironment(const std::vector<std::string>& environment);

// The process's own environment for a program it starts: restricted as above whenever the process
// runs as the super-user, really or effectively.
std::vector<std::string> ChildEnvironment();

// The value of `name` in `environment`, as getenv would find it there.
std::optional<std::string_view> FindVariable(const std::vector<std::string>& environment, std::string_view name);

// Gives `name` the value `value` in `environment`, in place of every entry it had.
void SetVariable(std::vector<std::string>& environment, std::string_view name, const std::string& value);

}  // namespace qvk::platform
