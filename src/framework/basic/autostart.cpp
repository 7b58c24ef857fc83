#include "framework/basic/autostart.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "framework/base/command_output.h"
#include "framework/base/global_mutex.h"
#include "framework/base/identity.h"
#include "framework/base/shell_quote.h"
#include "framework/base/system_version.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/file_read.h"
#include "platform/file_write.h"
#include "platform/home.h"
#include "platform/home_user.h"
#include "platform/preferences.h"
#include "platform/process_signals.h"
#include "platform/property_list.h"
#include "platform/service.h"
#include "platform/shell.h"
#include "platform/unique_fd.h"

std::optional<std::string> AutostartBundleOverride;
std::optional<std::string> AutostartBundle;

namespace {

using qvk::platform::AsHomeUser;
using qvk::platform::UniqueFd;

constexpr const char* kSource = "Apple/../../../Framework/Library/Basic/Autostart";
constexpr const char* DomainKey = "loginwindow";
constexpr const char* AutostartKey = "AutoLaunchedApplicationDictionary";
constexpr const char* PathKey = "Path";
// Before 10.4 there is no launchd agent.
constexpr std::uint32_t kLastWithoutLaunchd = 0x103F;
// The command buffer of KillLauncher, its terminating zero included.
constexpr std::size_t kCommandBufferSize = 1024;

std::optional<std::string> MyKey;

QVK_Framework_Autostart_Tidyup TidyupParticipant;
[[maybe_unused]] const bool TidyupParticipantRegistered = [] {
    QVK_Framework_RegisterClass("QVK_Framework_Autostart_Tidyup", TidyupParticipant);
    return true;
}();

std::string Home() { return qvk::platform::Use<qvk::platform::Home>().HomeDirectory(); }

std::string AgentFileName() { return qvk::Format("%@.plist", QVK_Framework_ApplicationName); }

// "~", "~/rest" and "~user/rest" at the start of a path become the home folder meant.
std::string ExpandTilde(const std::string& path) {
    if (path.empty() || path[0] != '~') return path;
    std::size_t slash = path.find('/');
    std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
    std::string rest = slash == std::string::npos ? std::string() : path.substr(slash);
    if (user.empty()) return Home() + rest;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !found->pw_dir)
        return path;
    return found->pw_dir + rest;
}

// Opens the folder `name` inside `parent`, never through a symbolic link. With `create` it is made
// first with mode 0755 unless it exists. The caller holds the home user's identity.
UniqueFd OpenFolder(int parent, const char* name, bool create) {
    bool made = false;
    if (create) {
        if (mkdirat(parent, name, 0755) == 0)
            made = true;
        else if (errno != EEXIST)
            return UniqueFd();
    }
    UniqueFd folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder.get() >= 0 && made) fchmod(folder.get(), 0755);
    return folder;
}

// The home folder's "Library/LaunchAgents", made when asked; none when it can't be had.
UniqueFd OpenAgentFolder(bool create) {
    UniqueFd library;
    {
        AsHomeUser asUser;
        UniqueFd home(asUser.Active() ? open(Home().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
        if (home.get() < 0) return UniqueFd();
        library = OpenFolder(home.get(), "Library", create);
    }
    if (library.get() < 0) return UniqueFd();
    if (create)
        QVK_Framework_Log_Internal("CreateLaunchdItem", kSource, 108, 5, "Launchd Dir: %@", GetLaunchdItemPath(false));
    AsHomeUser asUser;
    return asUser.Active() ? OpenFolder(library.get(), "LaunchAgents", create) : UniqueFd();
}

// Whether the text can stand in an XML property list: UTF-8 without control characters but tab,
// line feed and carriage return.
bool Serialisable(const std::string& text) {
    if (!QVK_Framework_IsUTF8(text)) return false;
    for (unsigned char c : text)
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
    return true;
}

bool Executable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

}  // namespace

std::string GetLaunchdItemPath(bool withFileName) {
    std::string folder = Home() + "/Library/LaunchAgents";
    return withFileName ? folder + "/" + AgentFileName() : folder;
}

std::string GetAutostartBundlePath() {
    if (AutostartBundleOverride) return *AutostartBundleOverride;
    std::string path = ExpandTilde(qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath());
    if (AutostartBundle) path += "/" + *AutostartBundle;
    return path;
}

bool CreateLaunchdItem() {
    constexpr const char* kFunction = "CreateLaunchdItem";
    QVK_Framework_Log_Internal(kFunction, kSource, 77, 5, nullptr);
    if (QVK_Framework_SystemVersion() <= kLastWithoutLaunchd) return false;

    qvk::Dictionary agent;
    agent["Label"] = qvk::Format("QVK %@", QVK_Framework_ApplicationName);
    std::string bundle = GetAutostartBundlePath();
    agent["WorkingDirectory"] = bundle;
    std::string program = bundle + "/Contents/MacOS/Launchd Skript";
    QVK_Framework_Log_Internal(kFunction, kSource, 97, 5, "Launchd skript: %@", program);
    if (!Executable(program)) return false;
    agent["Program"] = program;
    agent["RunAtLoad"] = true;
    agent["OnDemand"] = false;

    UniqueFd folder = OpenAgentFolder(true);
    if (folder.get() < 0) return false;

    bool serialisable = true;
    for (const auto& [key, value] : agent)
        if (value.AsString() && !Serialisable(*value.AsString())) serialisable = false;
    std::string xml = serialisable ? qvk::platform::XmlPropertyList(qvk::Value(agent)) : std::string();
    if (xml.empty()) {
        QVK_Framework_Log_Internal(kFunction, kSource, 125, 2, "dataFromPropertyList: %@",
                                   "Property list invalid for format: a text is not UTF-8 or holds control characters");
        return false;
    }
    std::string name = AgentFileName();
    if (name.find('/') != std::string::npos) {
        QVK_Framework_Log_Internal(kFunction, kSource, 117, 2, "Refused, the file name \"%@\" holds a \"/\"", name);
        return false;
    }
    QVK_Framework_Log_Internal(kFunction, kSource, 119, 5, "Launchd path: %@", GetLaunchdItemPath(true));
    AsHomeUser asUser;
    if (asUser.Active()) qvk::platform::WriteFileAtomically(folder.get(), name, xml, 0644, std::nullopt);
    return true;
}

void RemoveLaunchdItem() {
    UniqueFd folder = OpenAgentFolder(false);
    std::string name = AgentFileName();
    AsHomeUser asUser;
    if (asUser.Active() && folder.get() >= 0 && name.find('/') == std::string::npos)
        unlinkat(folder.get(), name.c_str(), 0);
}

bool CheckLaunchdItem() {
    std::optional<std::string> bytes;
    {
        AsHomeUser asUser;
        if (asUser.Active())
            bytes = qvk::platform::ReadBoundedFile(GetLaunchdItemPath(true), qvk::platform::FilePlace::UserGround);
    }
    std::optional<qvk::Value> agent = bytes ? qvk::platform::ParsePropertyList(*bytes) : std::nullopt;
    if (!agent || !agent->AsDictionary()) return false;
    const std::string* program = (*agent)["Program"].AsString();
    return program && Executable(*program);
}

qvk::Array GetAutostarts() {
    std::optional<qvk::Dictionary> domain =
        qvk::platform::Use<qvk::platform::Preferences>().PersistentDomainForName(DomainKey);
    const qvk::Value* items = nullptr;
    if (domain) {
        auto it = domain->find(AutostartKey);
        if (it != domain->end()) items = &it->second;
    }
    QVK_Framework_Log_Internal("GetAutostarts", kSource, 181, 5, "%@", items);
    return items && items->AsArray() ? *items->AsArray() : qvk::Array();
}

const std::string& MarkerKey() {
    QVK_Framework_GlobalLock lock;
    if (!MyKey) MyKey = qvk::Format("QVK %s %s", QVK_Framework_Project_Name, QVK_Framework_Project_Name_Application);
    return *MyKey;
}

bool QVK_Framework_Autostart_IsEnabled() {
    bool hit = false;
    if (QVK_Framework_SystemVersion() <= kLastWithoutLaunchd) {
        qvk::Array items = GetAutostarts();
        std::string bundle = GetAutostartBundlePath();
        for (const qvk::Value& item : items) {
            if (!item.IsNull() && !item[MarkerKey()].IsNull()) hit = true;
            const std::string* path = item[PathKey].AsString();
            if (path && ExpandTilde(*path) == bundle) hit = true;
            if (hit) break;
        }
    }
    return hit || CheckLaunchdItem();
}

void QVK_Framework_Autostart_SetBundle(const std::string& component) { AutostartBundle = component; }

bool QVK_Framework_Autostart_Set(bool on) {
    QVK_Framework_Log_Internal("QVK_Framework_Autostart_Set", kSource, 326, 5, "%s", on ? "yes" : "no");
    if (on) return CreateLaunchdItem();
    RemoveLaunchdItem();
    KillLauncher();
    return false;
}

void KillLauncher() {
    std::string command = qvk::Format("/bin/launchctl remove \"QVK %s\"", QVK_Framework_ApplicationName);
    if (!QVK_Framework_SafeInDoubleQuotes(QVK_Framework_ApplicationName)) {
        QVK_Framework_Log_Internal("KillLauncher", kSource, 364, 2, "Refused, the name could leave its quotes: %@",
                                   command);
    } else if (command.size() >= kCommandBufferSize) {
        QVK_Framework_Log_Internal("KillLauncher", kSource, 366, 2, "Refused, the command is longer than %d bytes: %@",
                                   static_cast<int>(kCommandBufferSize - 1), command);
    } else {
        qvk::platform::Use<qvk::platform::Shell>().System(command);
    }
    DoKillLauncher();
}

void DoKillLauncher() {
    std::string target = qvk::Format("%@/%s", qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath(),
                                     "Launcher.app/Contents/MacOS/Launcher");
    std::optional<std::string> output = QVK_Framework_GetCommandOutput("ps axww -o \"pid,command\"");
    if (!output) return;
    std::size_t start = 0;
    while (start < output->size()) {
        std::size_t end = output->find('\n', start);
        if (end == std::string::npos) end = output->size();
        std::string line = output->substr(start, end - start);
        start = end + 1;
        const char* text = line.c_str();
        char* rest = nullptr;
        errno = 0;
        long pid = std::strtol(text, &rest, 10);
        if (rest == text || errno == ERANGE || pid > INT32_MAX) continue;
        while (*rest == ' ' || *rest == '\t') ++rest;
        if (strncasecmp(rest, target.c_str(), target.size()) != 0) continue;
        // Never a process group or every process.
        if (pid > 0) qvk::platform::Use<qvk::platform::ProcessSignals>().Kill(static_cast<pid_t>(pid), SIGTERM);
    }
}

void QVK_Framework_Autostart_Tidyup::QVK_Framework_Tidyup_Action(bool) { QVK_Framework_Autostart_Set(false); }
