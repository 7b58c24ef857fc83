#include "framework/base/system_version.h"

#include <optional>

#include "framework/base/assert.h"
#include "framework/base/global_mutex.h"
#include "platform/format.h"
#include "platform/gestalt.h"
#include "platform/service.h"

namespace {

constexpr qvk::platform::VersionTriple RequiredVersion{10, 15, 0};

std::optional<std::string> SystemVersion;

}  // namespace

std::uint32_t QVK_Framework_SystemVersion() {
    auto version = qvk::platform::Use<qvk::platform::Gestalt>().SystemVersion();
    QVK_Framework_Assert(version.has_value(), "Error==noErr", "QVK_Framework_SystemVersion", "SystemVersion", 18);
    return *version & 0xFFFF;
}

std::string QVK_Framework_SystemVersionDetailed() {
    QVK_Framework_GlobalLock lock;
    if (!SystemVersion) {
        auto& gestalt = qvk::platform::Use<qvk::platform::Gestalt>();
        if (auto parts = gestalt.SystemVersionParts())
            SystemVersion =
                qvk::Format("%ld.%ld.%ld", parts->major & 0xFFFF, parts->minor & 0xFFFF, parts->bugfix & 0xFFFF);
        else
            SystemVersion = gestalt.OperatingSystemVersionString();
    }
    return *SystemVersion;
}

std::string KextFolder() {
    if (QVK_Framework_SystemVersion() < 0x1090) return "/System/Library/Extensions";
    if (qvk::platform::Use<qvk::platform::Gestalt>().IsOperatingSystemAtLeast(RequiredVersion))
        return "/Library/Extensions";
    return "/System/Library/Extensions";
}
