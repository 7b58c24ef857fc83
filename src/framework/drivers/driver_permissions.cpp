#include "framework/drivers/driver_permissions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "platform/format.h"
#include "platform/unique_fd.h"

// The Launcher runs as root while the package usually belongs to the user who installed it, so a
// user could plant a symbolic link in a driver folder and have root hand a system file to 0:0 0644.
// Every path is therefore resolved with realpath and must lie in the resolved application folder;
// the object is then opened from a descriptor of that folder one component at a time with
// O_NOFOLLOW, and owner and mode are changed through that descriptor (fchown, fchmod). A link
// swapped in after the check makes the open fail instead of redirecting it, so there is no window
// between check and change. Links whose target lies inside the package are thus followed as
// designed, and a folder reached through one is walked as a folder. A file with a second name is
// left alone: that name may lie outside the package, beyond what the walk can see.

namespace {

using qvk::platform::UniqueFd;

constexpr const char* kFunction = "QVK_Framework_SetDriverPermissions";
constexpr const char* kSource = "Drivers";

struct DirectoryCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

using FileIdentity = std::pair<dev_t, ino_t>;

struct Walk {
    int applicationFd;
    std::string application;
    // Folders being walked, outermost first: a link back to one of them would never end.
    std::vector<FileIdentity> ancestors;
};

std::optional<std::string> Resolve(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    if (!resolved) return std::nullopt;
    return std::string(resolved.get());
}

// The part of the resolved path below the resolved root ("" for the root itself); none outside it.
std::optional<std::string> Below(const std::string& root, const std::string& resolved) {
    if (root == "/") return resolved.substr(1);
    if (resolved == root) return "";
    if (resolved.size() > root.size() && resolved.starts_with(root) && resolved[root.size()] == '/')
        return resolved.substr(root.size() + 1);
    return std::nullopt;
}

// Opens `relative` beneath the folder `root` without following a link at any component.
UniqueFd OpenBeneath(int root, const std::string& relative) {
    UniqueFd current(fcntl(root, F_DUPFD_CLOEXEC, 0));
    std::size_t start = 0;
    while (current.get() >= 0 && start < relative.size()) {
        std::size_t end = relative.find('/', start);
        bool last = end == std::string::npos;
        if (last) end = relative.size();
        std::string component = relative.substr(start, end - start);
        // Non-blocking and without a controlling terminal, so that a fifo or terminal in the package
        // neither stalls the walk nor attaches to the Launcher.
        int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (last ? 0 : O_DIRECTORY);
        current.reset(openat(current.get(), component.c_str(), flags));
        start = end + 1;
    }
    return current;
}

// Owner and mode changes need super-user rights; without them they fail and the loader then fails
// on its own, so their results are not acted upon.
void ChangeOwnerAndMode(int fd, mode_t mode) {
    [[maybe_unused]] int owner = fchown(fd, 0, 0);
    [[maybe_unused]] int modes = fchmod(fd, mode);
}

bool FixTree(Walk& walk, const std::string& path) {
    std::optional<std::string> resolved = Resolve(path);
    if (!resolved) return false;
    std::optional<std::string> relative = Below(walk.application, *resolved);
    if (!relative) {
        QVK_Framework_Log_Internal(kFunction, kSource, 171, 2, "\"%@\" leads to \"%@\" outside \"%@\"; left unchanged",
                                   path, *resolved, walk.application);
        return false;
    }
    UniqueFd fd = OpenBeneath(walk.applicationFd, *relative);
    struct stat status {};
    if (fd.get() < 0 || fstat(fd.get(), &status) != 0) return false;

    if (!S_ISDIR(status.st_mode)) {
        if (status.st_nlink > 1) {
            QVK_Framework_Log_Internal(kFunction, kSource, 176, 2, "\"%@\" has %u links; left unchanged", path,
                                       static_cast<unsigned>(status.st_nlink));
            return false;
        }
        ChangeOwnerAndMode(fd.get(), 0644);
        return true;
    }
    FileIdentity identity{status.st_dev, status.st_ino};
    for (const FileIdentity& ancestor : walk.ancestors) {
        if (ancestor == identity) {
            QVK_Framework_Log_Internal(kFunction, kSource, 184, 2, "\"%@\" leads back into a folder being walked",
                                       path);
            return false;
        }
    }
    ChangeOwnerAndMode(fd.get(), 0755);
    std::unique_ptr<DIR, DirectoryCloser> dir(fdopendir(fd.get()));
    if (!dir) return false;
    fd.release();

    walk.ancestors.push_back(identity);
    bool result = true;
    while (dirent* entry = readdir(dir.get())) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (!FixTree(walk, qvk::Format("%@/%s", path, name))) {
            result = false;
            break;
        }
    }
    walk.ancestors.pop_back();
    return result;
}

}  // namespace

bool QVK_Framework_SetDriverPermissions(const std::string& path) {
    std::optional<std::string> application = Resolve(ApplicationFolder());
    if (!application) return false;
    UniqueFd applicationFd(open(application->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (applicationFd.get() < 0) return false;
    Walk walk{applicationFd.get(), *application, {}};
    return FixTree(walk, path);
}
