// Reading a file whose contents or place a user may control, with bounds.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace qvk::platform {

// The most a file a user controls may hold.
constexpr std::size_t kUserFileLimit = std::size_t{1} << 20;

enum class FilePlace {
    // Inside a package or a system folder: links are followed as usual.
    Anywhere,
    // In /tmp or a home folder: a symbolic link is never followed and a file with more than one
    // link is refused.
    UserGround,
};

// The whole file. It is opened without blocking, so a named pipe or a device cannot stall the
// caller; only a regular file of at most `limit` bytes is read. None, with errno set, for anything
// else.
std::optional<std::string> ReadBoundedFile(const std::string& path, FilePlace place,
                                           std::size_t limit = kUserFileLimit);

}  // namespace qvk::platform
