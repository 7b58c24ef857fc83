#include "platform/file_read.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/unique_fd.h"

namespace qvk::platform {

std::optional<std::string> ReadBoundedFile(const std::string& path, FilePlace place, std::size_t limit) {
    int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    if (place == FilePlace::UserGround) flags |= O_NOFOLLOW;
    UniqueFd fd(open(path.c_str(), flags));
    if (fd.get() < 0) return std::nullopt;
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) return std::nullopt;
    if (!S_ISREG(status.st_mode) || (place == FilePlace::UserGround && status.st_nlink != 1)) {
        errno = EINVAL;
        return std::nullopt;
    }
    if (static_cast<std::size_t>(status.st_size) > limit) {
        errno = EFBIG;
        return std::nullopt;
    }
    // The size may change while it is read: never more than the limit, and one byte past it tells.
    std::string bytes(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t length = 0;
    for (;;) {
        if (length == bytes.size()) {
            if (bytes.size() > limit) {
                errno = EFBIG;
                return std::nullopt;
            }
            bytes.resize(std::min(bytes.size() * 2 + 1, limit + 1));
        }
        ssize_t n = read(fd.get(), bytes.data() + length, bytes.size() - length);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        length += static_cast<std::size_t>(n);
    }
    bytes.resize(length);
    return bytes;
}

}  // namespace qvk::platform
