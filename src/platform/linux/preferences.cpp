// A domain is the property-list file "<home>/Library/Preferences/<domain>.plist".
#include "platform/preferences.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/bundle.h"
#include "platform/file_read.h"
#include "platform/file_write.h"
#include "platform/home.h"
#include "platform/home_user.h"
#include "platform/property_list.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

// A name that could leave the preferences folder names no domain.
bool ValidDomain(const std::string& domain) {
    return !domain.empty() && domain.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

std::string PreferencesFolder() { return Use<Home>().HomeDirectory() + "/Library/Preferences"; }

// The domain's file, read as the home user; none when it is missing, no single-link regular file
// or no property list.
std::optional<Value> ReadDomain(const std::string& domain) {
    AsHomeUser asUser;
    if (!asUser.Active()) return std::nullopt;
    std::optional<std::string> bytes =
        ReadBoundedFile(PreferencesFolder() + "/" + domain + ".plist", FilePlace::UserGround);
    return bytes ? ParsePropertyList(*bytes) : std::nullopt;
}

class LinuxPreferences final : public Preferences {
public:
    std::optional<Dictionary> PersistentDomainForName(const std::string& domain) override {
        if (!ValidDomain(domain)) return std::nullopt;
        std::optional<Value> root = ReadDomain(domain);
        if (!root || !root->AsDictionary()) return std::nullopt;
        return *root->AsDictionary();
    }

    std::string StandardDomain() override {
        Bundle& bundle = Use<Bundle>();
        std::optional<Value> info = ReadPropertyList(bundle.MainBundlePath() + "/Contents/Info.plist");
        if (info) {
            const std::string* identifier = (*info)["CFBundleIdentifier"].AsString();
            if (identifier && !identifier->empty()) return *identifier;
        }
        std::string executable = bundle.MainExecutablePath();
        return executable.substr(executable.rfind('/') + 1);
    }

    void RemoveObjectForKey(const std::string& domain, const std::string& key) override {
        if (!ValidDomain(domain)) return;
        AsHomeUser asUser;
        if (!asUser.Active()) return;
        std::string folderPath = PreferencesFolder();
        UniqueFd folder(open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.get() < 0) return;
        std::string name = domain + ".plist";
        // The file's owner and mode go to the rewritten one.
        struct stat st {};
        if (fstatat(folder.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return;
        std::optional<std::string> bytes = ReadBoundedFile(folderPath + "/" + name, FilePlace::UserGround);
        std::optional<Value> root = bytes ? ParsePropertyList(*bytes) : std::nullopt;
        Dictionary* values = root ? root->AsDictionary() : nullptr;
        if (!values || values->erase(key) == 0) return;
        WriteFileAtomically(folder.get(), name, XmlPropertyList(*root), st.st_mode & 07777,
                            FileOwner{st.st_uid, st.st_gid});
    }
};

}  // namespace

template <>
Preferences& DefaultService<Preferences>() {
    static LinuxPreferences preferences;
    return preferences;
}

}  // namespace qvk::platform
