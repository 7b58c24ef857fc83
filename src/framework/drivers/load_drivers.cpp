#include "framework/drivers/load_drivers.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include "framework/base/build_definitions.h"
#include "framework/base/class_registry.h"
#include "framework/base/identity.h"
#include "framework/base/shell_quote.h"
#include "framework/base/system_version.h"
#include "framework/base/text_encoding.h"
#include "framework/drivers/driver_permissions.h"
#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/format.h"
#include "platform/service.h"
#include "platform/shell.h"

const char* const QVK_Framework_DriverDir = "Contents/Drivers";
const char* const QVK_Framework_DriverDir_Install = "Contents/Drivers-Install";
const char* const CPU_x86 = "x86";
const char* const CPU_ppc = "ppc";

namespace {

constexpr const char* kSource = "Drivers";
constexpr const char* kPackageSuffix = ".Quorvik-Package";
// Releases below 10.3 are never looked for.
constexpr std::uint32_t kLowestRelease = 0x1030;

using FolderIdentity = std::pair<dev_t, ino_t>;

struct DirectoryCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

const char* CpuName() {
    switch (QVK_Framework_CPU) {
    case 1: return CPU_x86;
    case 2: return CPU_ppc;
    default: return nullptr;
    }
}

// "10_5" for 0x1058: the major part in hexadecimal, the minor part in decimal.
std::string ReleaseTag(std::uint32_t version) {
    return qvk::Format("%x_%d", (version >> 8) & 0xFF, (version >> 4) & 0xF);
}

// One minor release down; below minor 0 lies minor 15 of the previous major release.
std::uint32_t PreviousRelease(std::uint32_t version) {
    std::uint32_t major = (version >> 8) & 0xFF;
    std::uint32_t minor = (version >> 4) & 0xF;
    if (minor == 0) {
        minor = 15;
        --major;
    } else {
        --minor;
    }
    return major << 8 | minor << 4;
}

std::uint32_t RunningRelease() { return QVK_Framework_SystemVersion() & ~0xFu; }

// "Drivers[-<cpu>][-<release>][-Demand]"; a null or empty text leaves its part out.
std::string GetDriverDir(const char* releaseTag, const char* cpuName, bool demand) {
    std::string name = "Drivers";
    if (cpuName && *cpuName) name += std::string("-") + cpuName;
    if (releaseTag && *releaseTag) name += std::string("-") + releaseTag;
    if (demand) name += "-Demand";
    return name;
}

std::string GetDriverPath(const std::string& folderName, bool install) {
    std::string path = qvk::Format("%@/%s/%@", ApplicationFolder(),
                                   install ? QVK_Framework_DriverDir_Install : QVK_Framework_DriverDir, folderName);
    QVK_Framework_Log_Internal("GetDriverPath", kSource, 58, 5, "%@", path);
    return path;
}

bool IsDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool CheckDriverDir(const char* releaseTag, const char* cpuName, bool install) {
    return IsDirectory(GetDriverPath(GetDriverDir(releaseTag, cpuName, false), install));
}

// Whether the release has a driver folder for any processor, whichever this one is.
bool CheckDriverSystem(const char* releaseTag, bool install) {
    return CheckDriverDir(releaseTag, "", install) || CheckDriverDir(releaseTag, CPU_x86, install) ||
           CheckDriverDir(releaseTag, CPU_ppc, install);
}

void RunLoader(const std::string& path) {
    if (!QVK_Framework_SafeInDoubleQuotes(path)) {
        QVK_Framework_Log_Internal("LoadDrivers", kSource, 126, 2, "Not loading \"%@\": the path cannot be quoted",
                                   path);
        return;
    }
    std::string command = qvk::Format("/sbin/kextload \"%s\"", QVK_Framework_UnixEncoding(path));
    QVK_Framework_Log_Internal("LoadDrivers", kSource, 131, 5, "Executing \"%s\"", command);
    qvk::platform::Use<qvk::platform::Shell>().System(command);
}

// `ancestors` holds the folders being walked: a sub-package that leads back into one of them
// would otherwise be walked until the path grows too long, doubling the work at every level.
void LoadDrivers(const std::string& folder, bool install, bool demand, const std::optional<std::string>& filter,
                 bool* found, std::vector<FolderIdentity>& ancestors) {
    QVK_Framework_Log_Internal("LoadDrivers", kSource, 97, 5, "DriverDir %@ Filter %@", folder, filter);
    // A product may register a class of this name to be told about its drivers; the Launcher only
    // looks it up and walks the same way whether it exists or not.
    static_cast<void>(QVK_Framework_ClassNamed("QVK_Framework_Vendor_CollectDriverInfo"));

    std::string path = folder.starts_with('/') ? folder : GetDriverPath(folder, install);
    std::unique_ptr<DIR, DirectoryCloser> dir(opendir(path.c_str()));
    struct stat status {};
    if (!dir || fstat(dirfd(dir.get()), &status) != 0) return;
    FolderIdentity identity{status.st_dev, status.st_ino};
    for (const FolderIdentity& ancestor : ancestors) {
        if (ancestor == identity) {
            QVK_Framework_Log_Internal("LoadDrivers", kSource, 104, 2, "\"%@\" leads back into a folder being walked",
                                       path);
            return;
        }
    }
    // The names first, so that the folder is closed before sub-packages open theirs.
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    dir.reset();

    ancestors.push_back(identity);
    for (const std::string& name : names) {
        if (filter && !name.starts_with(*filter)) continue;
        std::string fullPath = qvk::Format("%@/%@", path, name);
        if (name.ends_with(kPackageSuffix)) {
            LoadDrivers(fullPath, install, demand, filter, found, ancestors);
            continue;
        }
        if (!found && !QVK_Framework_SetDriverPermissions(fullPath)) continue;
        // Drivers of "-Demand" folders are left for the system to load when a device asks for them.
        if (demand) continue;
        if (install)
            std::printf("%s\n", fullPath.c_str());
        else if (!found)
            RunLoader(fullPath);
        else
            *found = true;
    }
    ancestors.pop_back();
}

// Both folders of this release and processor: the regular one, then its "-Demand" twin.
void LoadDriversParts(const char* releaseTag, const char* cpuName, bool install,
                      const std::optional<std::string>& filter, bool* found) {
    if (!releaseTag || !cpuName) return;
    std::vector<FolderIdentity> ancestors;
    LoadDrivers(GetDriverDir(releaseTag, cpuName, false), install, false, filter, found, ancestors);
    LoadDrivers(GetDriverDir(releaseTag, cpuName, true), install, true, filter, found, ancestors);
}

std::optional<std::string> FindDriverPath(const std::string& driverName, const char* cpuName, const char* releaseTag) {
    // The launcher bundle's own tree, unlike the driver folders beside it.
    std::string path =
        qvk::Format("%@/Contents/Drivers-Install/%@/%@", qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath(),
                    GetDriverDir(releaseTag, cpuName, false), driverName);
    if (!IsDirectory(path)) return std::nullopt;
    QVK_Framework_Log_Internal("FindDriverPath", kSource, 241, 5, "Found \"%@\"", path);
    return path;
}

}  // namespace

void QVK_Framework_LoadDrivers(std::int32_t install, const std::optional<std::string>& filter, bool* found) {
    if (found) *found = false;
    const char* cpu = CpuName();

    std::optional<std::string> release;
    for (std::uint32_t version = RunningRelease(); !release && version >= kLowestRelease;
         version = PreviousRelease(version)) {
        std::string tag = ReleaseTag(version);
        if (CheckDriverSystem(tag.c_str(), install)) release = tag;
    }
    const char* releaseTag = release ? release->c_str() : nullptr;

    // Three full passes on purpose: every pass fixes owners and modes and loads again.
    for (int pass = 0; pass < 3; ++pass) {
        LoadDriversParts(releaseTag, cpu, install, filter, found);
        LoadDriversParts(releaseTag, "", install, filter, found);
        LoadDriversParts("", cpu, install, filter, found);
        LoadDriversParts("", "", install, filter, found);
    }
}

std::optional<std::string> QVK_Framework_Drivers_GetPath(const std::string& driverName) {
    const char* cpu = CpuName();
    // The first release tried also looks at the folders without a release, so these win over the
    // folders of older releases.
    bool firstPass = true;
    for (std::uint32_t version = RunningRelease(); version >= kLowestRelease; version = PreviousRelease(version)) {
        std::string tag = ReleaseTag(version);
        std::optional<std::string> hit = FindDriverPath(driverName, cpu, tag.c_str());
        if (!hit && firstPass) hit = FindDriverPath(driverName, cpu, nullptr);
        if (!hit) hit = FindDriverPath(driverName, nullptr, tag.c_str());
        if (!hit && firstPass) hit = FindDriverPath(driverName, nullptr, nullptr);
        if (hit) return hit;
        firstPass = false;
    }
    return std::nullopt;
}
