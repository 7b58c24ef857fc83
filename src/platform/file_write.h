// Replacing a file in one step, so that a reader sees the old contents or the new, never a part.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace qvk::platform {

struct FileOwner {
    uid_t user;
    gid_t group;
};

// Writes all of `bytes` to `fd`, going on after interruptions; false with errno set when it could not.
bool WriteAll(int fd, const std::string& bytes);

// Writes `bytes` as the file `name` inside the folder open as `folder`: a new file beside it, then
// renamed over the name. The file gets `mode` and, when given, `owner`. Whatever is at the name, a
// symbolic link included, is replaced, never followed. False with errno set when it failed; the
// new file is then gone again.
bool WriteFileAtomically(int folder, const std::string& name, const std::string& bytes, mode_t mode,
                         const std::optional<FileOwner>& owner);

}  // namespace qvk::platform
