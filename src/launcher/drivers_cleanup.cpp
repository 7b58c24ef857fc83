#include "launcher/drivers_cleanup.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "launcher/delete_app.h"
#include "launcher/my_user.h"
#include "launcher/uninstall_support.h"
#include "platform/format.h"
#include "platform/process_identity.h"
#include "platform/service.h"
#include "platform/shell.h"

namespace {

constexpr const char* kFunction = "Launcher_DriversCleanup";
constexpr const char* kSource = "MyAutoCleanup";
constexpr const char* kExtensions = "/System/Library/Extensions";
// How much of a mark or link target is read.
constexpr std::size_t kMarkLimit = 4095;

constexpr std::array<const char*, 4> kDriverCaches = {
    "/System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/KextIdentifiers.plist.gz",
    "/System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/"
    "IOKitPersonalities_i386.ioplist.gz",
    "/System/Library/Extensions.mkext",
    "/System/Library/Extensions.kextcache",
};

// An entry name has at most NAME_MAX bytes, so the driver path, its mark file and the commands
// built from it always fit their buffers.
static_assert(sizeof("/System/Library/Extensions/") + NAME_MAX + sizeof("/Quorvik Source") < kDriverPathLimit);
static_assert(sizeof("/sbin/kextunload \"/System/Library/Extensions/\"") + NAME_MAX < kCommandLimit);

enum class DriverKind { Skipped, Folder, Link };

struct DirectoryCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// Links are drivers; folders too, unless a dot stands first or second in their name. File systems
// that give no entry type are asked for the entry's status.
DriverKind Classify(int folder, const dirent& entry) {
    unsigned char type = entry.d_type;
    if (type == DT_UNKNOWN) {
        struct stat status {};
        if (fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DriverKind::Skipped;
        type = S_ISLNK(status.st_mode) ? DT_LNK : S_ISDIR(status.st_mode) ? DT_DIR : DT_REG;
    }
    if (type == DT_LNK) return DriverKind::Link;
    if (type == DT_DIR && entry.d_name[0] != '.' && entry.d_name[1] != '.') return DriverKind::Folder;
    return DriverKind::Skipped;
}

// The first bytes of the driver's mark: the "Quorvik Source" file of a folder, the target of a
// link. None when there is nothing to read.
std::optional<std::string> ReadMark(DriverKind kind, const std::string& driver) {
    std::string mark(kMarkLimit, '\0');
    ssize_t length = 0;
    if (kind == DriverKind::Link) {
        length = readlink(driver.c_str(), mark.data(), kMarkLimit);
    } else {
        std::string markFile = driver + "/Quorvik Source";
        // A fifo or terminal put there must neither stall the scan nor attach to the Launcher.
        int fd = open(markFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        if (fd < 0) return std::nullopt;
        while (static_cast<std::size_t>(length) < kMarkLimit) {
            ssize_t n = read(fd, mark.data() + length, kMarkLimit - static_cast<std::size_t>(length));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            length += n;
        }
        close(fd);
    }
    if (length <= 0) return std::nullopt;
    mark.resize(static_cast<std::size_t>(length));
    // The mark is a text: it ends at its first zero byte.
    mark.resize(std::strlen(mark.c_str()));
    return mark;
}

// Unloads and deletes the marked drivers; true when at least one was.
bool RemoveMarkedDrivers(const std::string& application) {
    std::unique_ptr<DIR, DirectoryCloser> folder(opendir(kExtensions));
    if (!folder) return false;
    QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Removing drivers from \"%@\"", application);
    bool removed = false;
    while (dirent* entry = readdir(folder.get())) {
        DriverKind kind = Classify(dirfd(folder.get()), *entry);
        if (kind == DriverKind::Skipped) continue;
        std::string driver = qvk::Format("%s/%s", kExtensions, entry->d_name);
        std::optional<std::string> mark = ReadMark(kind, driver);
        if (!mark || !std::string_view(*mark).starts_with(application)) continue;
        QVK_Framework_Log_Internal(kFunction, kSource, __LINE__, 5, "Removing driver: %s", driver);
        RunQuotedCommand(kFunction, kSource, "/sbin/kextunload \"%s\"", driver);
        if (kind == DriverKind::Folder)
            RunQuotedCommand(kFunction, kSource, "rm -rf \"%s\"", driver);
        else
            unlink(driver.c_str());
        removed = true;
    }
    return removed;
}

}  // namespace

void Launcher_DriversCleanup() {
    RequireSuperUser(kFunction, kSource);
    Launcher_Delete(CompanionApplication(" DriversUninstaller.app"));

    if (RemoveMarkedDrivers(ApplicationFolder())) {
        for (const char* cache : kDriverCaches) unlink(cache);
        qvk::platform::Use<qvk::platform::Shell>().System("/usr/bin/killall -HUP kextd");
    }

    qvk::platform::Use<qvk::platform::ProcessIdentity>().BecomeUser(MyUser);
    MoveUserDataToTrash(kFunction, kSource);
}
