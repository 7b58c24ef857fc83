#include "platform/file_write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "platform/unique_fd.h"

namespace qvk::platform {

bool WriteAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool WriteFileAtomically(int folder, const std::string& name, const std::string& bytes, mode_t mode,
                         const std::optional<FileOwner>& owner) {
    if (name.empty() || name.find('/') != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    std::string temporary;
    UniqueFd file;
    for (unsigned attempt = 0; attempt < 100 && file.get() < 0; ++attempt) {
        char suffix[32];
        std::snprintf(suffix, sizeof suffix, ".%d.%lx.%u", getpid(), static_cast<unsigned long>(std::time(nullptr)),
                      attempt);
        temporary = "." + name + suffix;
        file.reset(openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file.get() < 0 && errno != EEXIST) return false;
    }
    if (file.get() < 0) return false;
    bool written = WriteAll(file.get(), bytes) && (!owner || fchown(file.get(), owner->user, owner->group) == 0) &&
                   fchmod(file.get(), mode) == 0 && fsync(file.get()) == 0;
    int error = errno;
    file.reset();
    if (written && renameat(folder, temporary.c_str(), folder, name.c_str()) == 0) return true;
    if (written) error = errno;
    unlinkat(folder, temporary.c_str(), 0);
    errno = error;
    return false;
}

}  // namespace qvk::platform
