#include "platform/gestalt.h"
#include "platform/linux/system_version_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/property_list.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

constexpr const char* kSystemVersionFile = "/System/Library/CoreServices/SystemVersion.plist";
// A system without the file counts as 10.15.0.
constexpr VersionTriple kWithoutFile{10, 15, 0};

// "10.5.8" or "10.6"; none for anything else.
std::optional<VersionTriple> ParseProductVersion(const std::string& text) {
    long parts[3] = {0, 0, 0};
    const char* p = text.c_str();
    int count = 0;
    while (count < 3) {
        if (*p < '0' || *p > '9') return std::nullopt;
        errno = 0;
        char* end = nullptr;
        parts[count++] = std::strtol(p, &end, 10);
        if (errno != 0) return std::nullopt;
        p = end;
        if (*p == '\0') break;
        if (*p != '.') return std::nullopt;
        ++p;
    }
    if (*p != '\0' || count < 2) return std::nullopt;
    return VersionTriple{parts[0], parts[1], parts[2]};
}

class LinuxGestalt final : public Gestalt {
public:
    std::optional<std::uint32_t> SystemVersion() override {
        auto v = SystemVersionParts();
        return v ? SystemVersionNumber(*v) : std::nullopt;
    }

    std::optional<VersionTriple> SystemVersionParts() override { return ReadSystemVersionFile(kSystemVersionFile); }

    bool IsOperatingSystemAtLeast(const VersionTriple& wanted) override {
        auto v = SystemVersionParts();
        if (!v) return false;
        if (v->major != wanted.major) return v->major > wanted.major;
        if (v->minor != wanted.minor) return v->minor > wanted.minor;
        return v->bugfix >= wanted.bugfix;
    }

    std::string OperatingSystemVersionString() override {
        auto v = SystemVersionParts();
        if (!v) return "Version unknown";
        return "Version " + std::to_string(v->major) + "." + std::to_string(v->minor) + "." + std::to_string(v->bugfix);
    }
};

}  // namespace

std::optional<VersionTriple> ReadSystemVersionFile(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 && errno == ENOENT) return kWithoutFile;
    auto plist = ReadPropertyList(path);
    if (!plist) return std::nullopt;
    const std::string* text = (*plist)["ProductVersion"].AsString();
    if (!text) return std::nullopt;
    return ParseProductVersion(*text);
}

std::optional<std::uint32_t> SystemVersionNumber(const VersionTriple& v) {
    if (v.major < 10) return std::nullopt;
    if (v.major > 10) return 0x1099;
    auto digit = [](long n) { return static_cast<std::uint32_t>(std::clamp(n, 0L, 9L)); };
    return 0x1000 | (digit(v.minor) << 4) | digit(v.bugfix);
}

template <>
Gestalt& DefaultService<Gestalt>() {
    static LinuxGestalt gestalt;
    return gestalt;
}

}  // namespace qvk::platform
