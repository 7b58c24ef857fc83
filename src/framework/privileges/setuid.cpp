#include "framework/privileges/setuid.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "framework/base/assert.h"
#include "framework/base/system_version.h"
#include "framework/log/logging.h"
#include "platform/account.h"
#include "platform/bundle.h"
#include "platform/environment.h"
#include "platform/format.h"
#include "platform/process_identity.h"
#include "platform/service.h"

const char* QVK_PreferredLanguage = nullptr;
std::optional<std::uint32_t> QVK_Framework_SetuidStartingUser;

namespace {

constexpr const char* kFunction = "QVK_Framework_HandleSetuid";
constexpr const char* kSource = "../../Framework/Framework/Apple/Setuid";

// The whole text as a decimal user id; none for anything else (sign, blanks, trailing letters,
// (uid_t)-1 or beyond).
std::optional<std::uint32_t> ParseUserID(const char* text) {
    if (*text < '0' || *text > '9') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value >= UINT32_MAX) return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

bool IsHandOverOption(const char* argument) {
    return std::strcmp(argument, "--uid") == 0 || std::strcmp(argument, "--lang") == 0;
}

// The given arguments without the options that only the privileged run reads, each with the
// argument that run would take as its value (a trailing one included, which would swallow the
// appended "--uid"): only the options appended for the starting user reach it.
std::vector<char*> WithoutHandOverOptions(int argc, char** argv) {
    std::vector<char*> kept(argv, argv + std::min(argc, 1));
    for (int i = 1; i < argc; ++i) {
        if (IsHandOverOption(argv[i]))
            ++i;
        else
            kept.push_back(argv[i]);
    }
    return kept;
}

// The user's start: hands over to the running executable as the super-user, with the given
// arguments followed by "--uid <real user>" and, when the bundle has one for this user,
// "--lang <language>".
[[noreturn]] void ReexecuteAsSuperUser(qvk::platform::ProcessIdentity& process, int executable, int argc, char** argv) {
    std::uint32_t user = process.RealUserID();
    std::vector<std::string> added{"--uid", qvk::Format("%u", user)};
    std::vector<std::string> languages = qvk::platform::Use<qvk::platform::Bundle>().PreferredLocalizations();
    if (!languages.empty()) {
        added.push_back("--lang");
        added.push_back(languages.front());
    }
    std::vector<char*> arguments = WithoutHandOverOptions(argc, argv);
    for (std::string& text : added) arguments.push_back(text.data());
    arguments.push_back(nullptr);

    // The privileged run works in the home folder the account database gives the user, never in
    // one the caller named.
    std::optional<qvk::platform::Account> account = qvk::platform::LookUpAccount(user);
    setenv("HOME", account ? account->home.c_str() : "/", 1);

    // The privileged run sees only what any program of the super-user may see of the caller's environment.
    std::vector<std::string> environment = qvk::platform::ChildEnvironment();
    std::vector<char*> variables;
    for (std::string& entry : environment) variables.push_back(entry.data());
    variables.push_back(nullptr);

    if (process.BecomeUser(0) != 0) QVK_Framework_AssertionFailed("NO", kFunction, kSource, 79);
    // Without the set-user-id bit the new image keeps the super-user as both real and effective user.
    process.ChangeMode(executable, 0755);
    process.Execute(executable, arguments.data(), variables.data());
    // The bit back first, or no later start would be privileged.
    process.ChangeMode(executable, 04755);
    QVK_Framework_AssertionFailed("NO", kFunction, kSource, 79);
}

}  // namespace

std::uint32_t QVK_Framework_HandleSetuid(int argc, char** argv) {
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    QVK_Framework_Log_Internal(kFunction, kSource, 25, 5, "uid: %u euid: %u", process.RealUserID(),
                               process.EffectiveUserID());
    if (QVK_Framework_SystemVersion() < 0x1060) {
        if (process.RealUserID() != 0 && process.EffectiveUserID() == 0)
            QVK_Framework_SetuidStartingUser = process.RealUserID();
        return process.RealUserID();
    }

    std::uint32_t result = 0;
    if (process.EffectiveUserID() != 0) return result;
    int executable = qvk::platform::Use<qvk::platform::Bundle>().MainExecutable();
    if (process.RealUserID() != 0) ReexecuteAsSuperUser(process, executable, argc, argv);

    // The privileged run puts the set-user-id bit back for the next start.
    process.ChangeOwner(executable, 0, 0);
    process.ChangeMode(executable, 04755);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--uid") == 0 && i + 1 < argc) {
            if (std::optional<std::uint32_t> uid = ParseUserID(argv[++i])) result = *uid;
        } else if (std::strcmp(argv[i], "--lang") == 0 && i + 1 < argc) {
            QVK_PreferredLanguage = argv[++i];
        }
    }
    // Only the hand-over starts the image from a descriptor; the super-user's own start does not.
    if (process.StartedFromDescriptor()) QVK_Framework_SetuidStartingUser = result;
    return result;
}
