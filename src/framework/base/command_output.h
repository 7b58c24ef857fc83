// Runs a shell command and takes what it writes to its standard output.
#pragma once

#include <optional>
#include <string>

// The whole output, final newline included; none when the command could not be started or read.
std::optional<std::string> QVK_Framework_GetCommandOutput(const char* command);
