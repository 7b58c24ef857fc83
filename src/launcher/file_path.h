// Paths of the enclosing application's resources.
#pragma once

#include <optional>
#include <string>

// "<folder holding the launcher bundle>/Contents/Resources/<name>"; none for a null name.
std::optional<std::string> QVK_Framework_FilePath(const char* name);
