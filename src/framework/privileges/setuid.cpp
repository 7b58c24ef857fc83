#include "framework/privileges/setuid.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "framework/base/assert.h"
#include "framework/base/system_version.h"
#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/format.h"
#include "platform/home.h"
#include "platform/process_identity.h"
#include "platform/service.h"

const char* QVK_PreferredLanguage = nullptr;

namespace {

constexpr const char* kFunction = "QVK_Framework_HandleSetuid";
constexpr const char* kSource = "../../Framework/Framework/Apple/Setuid";

// The whole text as a decimal user id; none for anything else (sign, blanks, trailing letters,
// (uid_t)-1 or beyond).
bool ParseUserID(const char* text, std::uint32_t& uid) {
    if (*text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value >= UINT32_MAX) return false;
    uid = static_cast<std::uint32_t>(value);
    return true;
}

// The user's start: hands over to the same executable running wholly as the super-user, with the
// given arguments followed by "--uid <real user>" and, when the bundle has one for this user,
// "--lang <language>".
[[noreturn]] void ReexecuteAsSuperUser(qvk::platform::ProcessIdentity& process, const std::string& executable, int argc,
                                       char** argv) {
    std::vector<std::string> added{"--uid", qvk::Format("%u", process.RealUserID())};
    std::vector<std::string> languages = qvk::platform::Use<qvk::platform::Bundle>().PreferredLocalizations();
    if (!languages.empty()) {
        added.push_back("--lang");
        added.push_back(languages.front());
    }
    std::vector<char*> arguments(argv, argv + argc);
    for (std::string& text : added) arguments.push_back(text.data());
    arguments.push_back(nullptr);

    // The home folder stays the starting user's: the privileged run finds it in the environment.
    const char* home = std::getenv("HOME");
    if (!home || home[0] != '/') setenv("HOME", qvk::platform::Use<qvk::platform::Home>().HomeDirectory().c_str(), 1);

    process.SetUserID(0);
    // Without the set-user-id bit the new image keeps the super-user as both real and effective user.
    process.ChangeMode(executable, 0755);
    process.Execute(executable, arguments.data(), environ);
    QVK_Framework_AssertionFailed("NO", kFunction, kSource, 79);
}

}  // namespace

std::uint32_t QVK_Framework_HandleSetuid(int argc, char** argv) {
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    QVK_Framework_Log_Internal(kFunction, kSource, 25, 5, "uid: %u euid: %u", process.RealUserID(),
                               process.EffectiveUserID());
    if (QVK_Framework_SystemVersion() < 0x1060) return process.RealUserID();

    std::uint32_t result = 0;
    if (process.EffectiveUserID() != 0) return result;
    std::string executable = qvk::platform::Use<qvk::platform::Bundle>().MainExecutablePath();
    if (process.RealUserID() != 0) ReexecuteAsSuperUser(process, executable, argc, argv);

    // The privileged run puts the set-user-id bit back for the next start.
    process.ChangeOwner(executable, 0, 0);
    process.ChangeMode(executable, 04755);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--uid") == 0 && i + 1 < argc) {
            ParseUserID(argv[++i], result);
        } else if (std::strcmp(argv[i], "--lang") == 0 && i + 1 < argc) {
            QVK_PreferredLanguage = argv[++i];
        }
    }
    return result;
}
