// Paths as text, and the paths the system keeps of any length: a link's target, the working
// directory.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qvk::platform {

// The folder that holds `path` (trailing slashes ignored): "/" for an entry of the root, empty for
// a bare name, which names no folder.
std::string ParentFolder(std::string_view path);

// The target of the symbolic link `path`, however long; none when it can't be read.
std::optional<std::string> ReadLink(const std::string& path);

// The working directory's path, however long; none when it can't be read.
std::optional<std::string> WorkingDirectory();

}  // namespace qvk::platform
