// Command texts that need no shell.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvk::platform {

// The argument vector /bin/sh would run for `command`, when the text is nothing but words of
// plain characters and double-quoted strings that hold no '$', '`' or '\\', separated by blanks,
// and its first word names no built-in command or reserved word of the shell. None for anything
// else (pipes, redirections, variables, patterns, assignments, ...), which needs the shell itself.
std::optional<std::vector<std::string>> SimpleCommandWords(std::string_view command);

}  // namespace qvk::platform
