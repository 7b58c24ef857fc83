#include "platform/environment.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace qvk::platform {

namespace {

constexpr std::string_view kPath = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

bool NamesAFile(std::string_view value) {
    return value.find('/') != std::string_view::npos || value.find("..") != std::string_view::npos;
}

bool Allowed(std::string_view name, std::string_view value) {
    static constexpr std::array<std::string_view, 10> kAsGiven{"HOME",
                                                               "USER",
                                                               "LOGNAME",
                                                               "TERM",
                                                               "DISPLAY",
                                                               "WAYLAND_DISPLAY",
                                                               "XAUTHORITY",
                                                               "XDG_RUNTIME_DIR",
                                                               "DBUS_SESSION_BUS_ADDRESS",
                                                               kInstallationMoved};
    if (std::find(kAsGiven.begin(), kAsGiven.end(), name) != kAsGiven.end()) return true;
    if (name == "LANG" || name == "LANGUAGE" || name == "TZ" || name.starts_with("LC_")) return !NamesAFile(value);
    return false;
}

bool HasName(const std::string& entry, std::string_view name) {
    return entry.size() > name.size() && entry.starts_with(name) && entry[name.size()] == '=';
}

}  // namespace

std::vector<std::string> SuperUserEnvironment(const std::vector<std::string>& environment) {
    std::vector<std::string> allowed{std::string(kPath)};
    for (const std::string& entry : environment) {
        std::size_t equals = entry.find('=');
        if (equals == std::string::npos || equals == 0) continue;
        std::string_view name(entry.data(), equals);
        // The first entry of a name is the one getenv finds.
        bool seen =
            std::any_of(allowed.begin(), allowed.end(), [&](const std::string& kept) { return HasName(kept, name); });
        if (!seen && Allowed(name, std::string_view(entry).substr(equals + 1))) allowed.push_back(entry);
    }
    return allowed;
}

std::vector<std::string> ChildEnvironment() {
    std::vector<std::string> environment;
    for (char** entry = environ; entry && *entry; ++entry) environment.emplace_back(*entry);
    if (getuid() == 0 || geteuid() == 0) return SuperUserEnvironment(environment);
    return environment;
}

std::optional<std::string_view> FindVariable(const std::vector<std::string>& environment, std::string_view name) {
    for (const std::string& entry : environment)
        if (HasName(entry, name)) return std::string_view(entry).substr(name.size() + 1);
    return std::nullopt;
}

void SetVariable(std::vector<std::string>& environment, std::string_view name, const std::string& value) {
    std::erase_if(environment, [&](const std::string& entry) { return HasName(entry, name); });
    environment.push_back(std::string(name) + "=" + value);
}

}  // namespace qvk::platform
