// A domain is the property-list file "<home>/Library/Preferences/<domain>.plist".
#include "platform/preferences.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "platform/bundle.h"
#include "platform/file_write.h"
#include "platform/home.h"
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

std::optional<std::string> ReadAll(int fd) {
    std::string bytes;
    std::vector<char> buf(65536);
    for (;;) {
        ssize_t n = read(fd, buf.data(), buf.size());
        if (n < 0) return std::nullopt;
        if (n == 0) return bytes;
        bytes.append(buf.data(), static_cast<std::size_t>(n));
    }
}

class LinuxPreferences final : public Preferences {
public:
    std::optional<Dictionary> PersistentDomainForName(const std::string& domain) override {
        if (!ValidDomain(domain)) return std::nullopt;
        std::optional<Value> root = ReadPropertyList(PreferencesFolder() + "/" + domain + ".plist");
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
        UniqueFd folder(open(PreferencesFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.get() < 0) return;
        std::string name = domain + ".plist";
        // The file as it is, never through a link: its owner and mode go to the rewritten one.
        UniqueFd file(openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat st {};
        if (file.get() < 0 || fstat(file.get(), &st) < 0 || !S_ISREG(st.st_mode)) return;
        std::optional<std::string> bytes = ReadAll(file.get());
        if (!bytes) return;
        std::optional<Value> root = ParsePropertyList(*bytes);
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
