// The Launcher deletes as the super-user in folders that may belong to a user, who could swap a
// folder for a link while the walk runs. So the walk never resolves a path below the starting
// one: it opens each folder with O_NOFOLLOW and reaches its entries through that descriptor, and
// every removal names its entry relative to the folder that was opened.
#include "launcher/delete_app.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "platform/format.h"

namespace {

constexpr const char* kSource = "DeleteApp";

struct DirectoryCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// The folder `name` of `parent` (a descriptor, or AT_FDCWD for a path) for reading, never through
// a link.
Directory OpenFolder(int parent, const char* name) {
    int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return nullptr;
    Directory dir(fdopendir(fd));
    if (!dir) close(fd);
    return dir;
}

std::int32_t DeleteEntry(int parent, const char* name, const std::string& path);

// Every entry of the folder but "." and "..", each deleted in turn.
void DeleteContents(DIR* dir, const std::string& path) {
    // The names first: removing entries while reading the folder may make the reader skip some.
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    for (const std::string& name : names) DeleteEntry(dirfd(dir), name.c_str(), qvk::Format("%@/%@", path, name));
}

std::int32_t DeleteEntry(int parent, const char* name, const std::string& path) {
    struct stat status {};
    if (fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    if (!S_ISDIR(status.st_mode)) return unlinkat(parent, name, 0);
    QVK_Framework_Log_Internal("Launcher_Delete", kSource, __LINE__, 5, "%@", path);
    if (Directory dir = OpenFolder(parent, name)) DeleteContents(dir.get(), path);
    return unlinkat(parent, name, AT_REMOVEDIR);
}

}  // namespace

void Launcher_DeleteApp() {
    std::string application = ApplicationFolder();
    QVK_Framework_Log_Internal("Launcher_DeleteApp", kSource, __LINE__, 5, "%@", application);
    // A launcher bundle at the top of the file system has no application folder of its own.
    if (application.empty() || application == "/") {
        QVK_Framework_Log_Internal("Launcher_DeleteApp", kSource, __LINE__, 2, "Not deleting \"%@\"", application);
        return;
    }
    Launcher_Delete(application);
}

std::int32_t Launcher_Delete(const std::string& path) { return DeleteEntry(AT_FDCWD, path.c_str(), path); }
