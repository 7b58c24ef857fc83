// Mounted volumes on Linux. The listing is /proc/self/mounts in the one-line-per-mount form of the
// Mac's mount tool; ejecting is unmounting and, for a CD drive whose last volume went, opening the
// tray. A process that keeps a volume busy is found by its working folder or an open descriptor.
#include "platform/volumes.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/cdrom.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/file_read.h"
#include "platform/linux/mounts_file.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

// The kernel's mount tables; none when one cannot be read whole.
std::optional<std::string> ReadMountTable(const char* path) {
    constexpr std::size_t kMountTableLimit = std::size_t{16} << 20;
    return ReadBoundedFile(path, FilePlace::Anywhere, kMountTableLimit);
}

// The kernel writes a blank, tab, line feed and backslash in these files as \ooo.
std::string Unescape(std::string_view field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            std::string_view digits = field.substr(i + 1, 3);
            if (digits[0] >= '0' && digits[0] <= '3' && digits[1] >= '0' && digits[1] <= '7' && digits[2] >= '0' &&
                digits[2] <= '7') {
                out += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0'));
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return out;
}

std::vector<std::string_view> Fields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    while (start < line.size()) {
        std::size_t end = line.find(' ', start);
        if (end == std::string_view::npos) end = line.size();
        if (end > start) fields.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return fields;
}

template <class Each>
void ForEachLine(std::string_view text, Each each) {
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        each(text.substr(start, end - start));
        start = end + 1;
    }
}

struct MountInfo {
    std::uint64_t id;
    std::string mountPoint;
    std::string source;
};

// /proc/self/mountinfo: "id parent major:minor root mount-point options [optional...] - type source ...".
std::optional<std::vector<MountInfo>> ReadMountInfo() {
    std::optional<std::string> text = ReadMountTable("/proc/self/mountinfo");
    if (!text) return std::nullopt;
    std::vector<MountInfo> mounts;
    ForEachLine(*text, [&](std::string_view line) {
        std::vector<std::string_view> f = Fields(line);
        std::size_t dash = 6;
        while (dash < f.size() && f[dash] != "-") ++dash;
        if (f.size() < 5 || dash + 2 >= f.size()) return;
        unsigned major = 0, minor = 0;
        if (std::sscanf(std::string(f[2]).c_str(), "%u:%u", &major, &minor) != 2) return;
        mounts.push_back({makedev(major, minor), Unescape(f[4]), Unescape(f[dash + 2])});
    });
    return mounts;
}

bool OnVolume(const std::string& path, std::uint64_t volume) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && st.st_dev == volume;
}

// A process whose working folder or an open file lies on the volume; 0 when there is none.
std::uint32_t ProcessUsing(std::uint64_t volume) {
    Dir proc(opendir("/proc"));
    if (!proc) return 0;
    while (dirent* entry = readdir(proc.get())) {
        std::string_view name(entry->d_name);
        if (name.empty() || name.find_first_not_of("0123456789") != std::string_view::npos) continue;
        std::string base = "/proc/" + std::string(name);
        auto pid = static_cast<std::uint32_t>(std::strtoul(entry->d_name, nullptr, 10));
        if (OnVolume(base + "/cwd", volume)) return pid;
        Dir fds(opendir((base + "/fd").c_str()));
        if (!fds) continue;
        while (dirent* fd = readdir(fds.get())) {
            if (fd->d_name[0] == '.') continue;
            if (OnVolume(base + "/fd/" + fd->d_name, volume)) return pid;
        }
    }
    return 0;
}

// Opens the tray of the CD drive `device` when it is the volume's device and none of its volumes
// is mounted any more; true when there was nothing to do.
bool EjectMedium(const std::string& device, std::uint64_t volume) {
    struct stat st {};
    if (stat(device.c_str(), &st) != 0 || !S_ISBLK(st.st_mode) || st.st_rdev != volume) return true;
    if (auto mounts = ReadMountInfo())
        for (const MountInfo& m : *mounts)
            if (m.id == volume) return true;
    UniqueFd fd(open(device.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) return false;
    if (ioctl(fd.get(), CDROM_GET_CAPABILITY, 0) < 0) return true;
    return ioctl(fd.get(), CDROMEJECT, 0) == 0;
}

}  // namespace

std::string MountListingOf(std::string_view mounts) {
    std::string listing;
    ForEachLine(mounts, [&](std::string_view line) {
        std::vector<std::string_view> f = Fields(line);
        if (f.size() < 4) return;
        std::string device = Unescape(f[0]), mountPoint = Unescape(f[1]);
        // A line feed in a name would make a line of its own in the listing; such a mount is
        // left out rather than let its name pose as another mount.
        if (device.find('\n') != std::string::npos || mountPoint.find('\n') != std::string::npos) return;
        listing += device + " on " + mountPoint + " (" + Unescape(f[2]) + ", " + Unescape(f[3]) + ")\n";
    });
    return listing;
}

namespace {

class LinuxVolumes final : public Volumes {
public:
    std::optional<std::string> MountListing() override {
        std::optional<std::string> text = ReadMountTable("/proc/self/mounts");
        if (!text) return std::nullopt;
        return MountListingOf(*text);
    }

    std::optional<VolumeRef> VolumeForPath(const std::string& path) override {
        std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
        if (!resolved) return std::nullopt;
        std::string target = resolved.get();
        std::optional<std::vector<MountInfo>> mounts = ReadMountInfo();
        if (!mounts) return std::nullopt;
        // Of mounts on one place the last one made is the one seen there.
        const MountInfo* mounted = nullptr;
        for (const MountInfo& m : *mounts)
            if (m.mountPoint == target) mounted = &m;
        if (!mounted) return std::nullopt;
        return VolumeRef{mounted->mountPoint, mounted->source, mounted->id};
    }

    bool EjectVolumeSync(const VolumeRef& volume, std::uint32_t& dissenter) override {
        dissenter = 0;
        if (umount2(volume.mountPoint.c_str(), UMOUNT_NOFOLLOW) != 0) {
            if (errno == EBUSY) dissenter = ProcessUsing(volume.id);
            return false;
        }
        return EjectMedium(volume.device, volume.id);
    }
};

}  // namespace

template <>
Volumes& DefaultService<Volumes>() {
    static LinuxVolumes volumes;
    return volumes;
}

}  // namespace qvk::platform
