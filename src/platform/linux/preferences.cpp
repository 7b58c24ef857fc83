// A domain is the property-list file "<home>/Library/Preferences/<domain>.plist".
#include "platform/preferences.h"

#include "platform/home.h"
#include "platform/property_list.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

class LinuxPreferences final : public Preferences {
public:
    std::optional<Dictionary> PersistentDomainForName(const std::string& domain) override {
        // A name that could leave the preferences folder names no domain.
        if (domain.empty() || domain.find_first_of(std::string("/\0", 2)) != std::string::npos) return std::nullopt;
        std::optional<Value> root =
            ReadPropertyList(Use<Home>().HomeDirectory() + "/Library/Preferences/" + domain + ".plist");
        if (!root || !root->AsDictionary()) return std::nullopt;
        return *root->AsDictionary();
    }
};

}  // namespace

template <>
Preferences& DefaultService<Preferences>() {
    static LinuxPreferences preferences;
    return preferences;
}

}  // namespace qvk::platform
