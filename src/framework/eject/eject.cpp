#include "framework/eject/eject.h"

#include <string_view>
#include <utility>

#include "framework/base/kernel_error_message.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "platform/service.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"

namespace {

constexpr const char* kSource = "Apple/../../../Framework/Library/Base/Apple/Eject";

// The mount point of a listing line "<device> on <mount point> (<options>)" whose device is the
// disk `prefix` or, loosely, any name that goes on from it with "s" and digits; none otherwise.
std::optional<std::string_view> MountPointOf(std::string_view line, std::string_view prefix) {
    if (!line.starts_with(prefix)) return std::nullopt;
    std::size_t blank = prefix.size();
    for (; blank < line.size() && line[blank] != ' '; ++blank)
        if (line[blank] != 's' && (line[blank] < '0' || line[blank] > '9')) return std::nullopt;
    if (blank == line.size()) return std::nullopt;
    std::string_view rest = line.substr(blank + 1);
    if (!rest.starts_with("on ")) return std::nullopt;
    rest.remove_prefix(3);
    // Only the last " (" starts the options: the mount point may hold blanks and parentheses.
    std::size_t options = rest.rfind(" (");
    if (options == std::string_view::npos) return std::nullopt;
    return rest.substr(0, options);
}

}  // namespace

qvk::platform::RegistryEntry FindCDNode(qvk::platform::RegistryEntry service) {
    using namespace qvk::platform;
    IoRegistry& registry = Use<IoRegistry>();
    RegistryIterator children;
    IoReturn result = registry.RegistryEntryGetChildIterator(service, children);
    if (result != kIOReturnSuccess) {
        QVK_Framework_Log_Internal("FindCDNode", kSource, 173, 5, "Unable to get children: %s",
                                   QVK_Framework_KernelError_Message(result));
        return {};
    }
    RegistryEntry hit;
    while (!hit) {
        RegistryEntry child = registry.IteratorNext(children);
        if (!child) break;
        if (registry.ObjectConformsTo(child, kCDMediaClass)) {
            // The child's own reference goes to the caller.
            hit = child;
        } else {
            hit = FindCDNode(child);
            registry.ObjectRelease(child);
        }
    }
    registry.ObjectRelease(children);
    return hit;
}

std::optional<std::string> QVK_Framework_BSDNameForMedia(qvk::platform::RegistryEntry service) {
    using namespace qvk::platform;
    RegistryEntry node = FindCDNode(service);
    if (!node) return std::nullopt;
    std::optional<qvk::Value> name = Use<IoRegistry>().RegistryEntryCreateCFProperty(node, kBSDNameKey);
    Use<IoRegistry>().ObjectRelease(node);
    if (!name || !name->AsString()) return std::nullopt;
    return *name->AsString();
}

bool QVK_Framework_EjectDisk(const std::string& name, std::uint32_t delay) {
    using namespace qvk::platform;
    QVK_Framework_Log_Internal("QVK_Framework_EjectDisk", kSource, 48, 5, "%@", name);
    bool ejected = false;
    std::optional<std::string> listing = Use<Volumes>().MountListing();
    if (!listing || !QVK_Framework_IsUTF8(*listing)) return false;
    const std::string prefix = "/dev/" + name;
    std::string_view text(*listing);
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        std::optional<std::string_view> mountPoint = MountPointOf(line, prefix);
        if (!mountPoint || !mountPoint->starts_with('/')) continue;
        // Only the first ejection waits.
        if (delay) Use<Sleeper>().Usleep(std::exchange(delay, 0));
        if (QVK_Framework_EjectVolume(std::string(*mountPoint))) ejected = true;
    }
    return ejected;
}

bool QVK_Framework_EjectVolume(const std::string& mountPoint) {
    using namespace qvk::platform;
    constexpr const char* kFunction = "QVK_Framework_EjectVolume";
    QVK_Framework_Log_Internal(kFunction, kSource, 17, 5, "%@", mountPoint);
    std::optional<VolumeRef> volume = Use<Volumes>().VolumeForPath(mountPoint);
    if (!volume) {
        QVK_Framework_Log_Internal(kFunction, kSource, 36, 5, "Eject \"%@\" failed for unknown reason", mountPoint);
        return false;
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 26, 5, "FSEjectVolumeSync()");
    std::uint32_t dissenter = 0;
    if (!Use<Volumes>().EjectVolumeSync(*volume, dissenter)) {
        QVK_Framework_Log_Internal(kFunction, kSource, 32, 5, "Eject \"%@\" failed due to pid %u", mountPoint,
                                   dissenter);
        return false;
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 29, 5, "Eject \"%@\" succeeded", mountPoint);
    return true;
}
