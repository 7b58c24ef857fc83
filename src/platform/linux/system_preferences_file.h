// The system network preferences kept in one XML property-list file. The default store reads
// "/Library/Preferences/SystemConfiguration/preferences.plist"; tests give a file of their own.
#pragma once

#include <memory>
#include <string>

#include "platform/system_preferences.h"

namespace qvk::platform {

class SystemPreferencesFile final : public SystemPreferencesStore {
public:
    explicit SystemPreferencesFile(std::string path);
    // None when the file is missing, no regular file, or no property list with a dictionary at its root.
    std::unique_ptr<SystemPreferences> Create(const std::string& clientName) override;

private:
    std::string path_;
};

}  // namespace qvk::platform
