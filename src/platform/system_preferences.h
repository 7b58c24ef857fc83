// The system's network preferences, as SCPreferences hands them out: a reference holds the
// preferences' values, changes them in memory, saves them with CommitChanges and activates them
// with ApplyChanges. Paths such as "/Sets/<id>/Network/Service/<id>" address nested dictionaries.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/value.h"

namespace qvk::platform {

class SystemPreferences {
public:
    virtual ~SystemPreferences() = default;
    // Takes the preferences' lock; with `wait` it waits while another writer holds it.
    virtual bool Lock(bool wait) = 0;
    virtual bool Unlock() = 0;
    // The top-level value of `key`; none when absent.
    virtual std::optional<Value> GetValue(const std::string& key) = 0;
    // The dictionary at `path`; none when the path leads nowhere or ends in no dictionary.
    virtual std::optional<Dictionary> PathGetValue(const std::string& path) = 0;
    // Puts `value` at `path`, creating the dictionaries on the way.
    virtual bool PathSetValue(const std::string& path, const Dictionary& value) = 0;
    // Fails when there is nothing at `path`.
    virtual bool PathRemoveValue(const std::string& path) = 0;
    // Saves the changes made through this reference.
    virtual bool CommitChanges() = 0;
    // Activates the saved preferences in the running system.
    virtual bool ApplyChanges() = 0;
};

// Hands out references to the default (system) preferences.
class SystemPreferencesStore {
public:
    virtual ~SystemPreferencesStore() = default;
    // None when the preferences cannot be opened or read. `clientName` names the caller.
    virtual std::unique_ptr<SystemPreferences> Create(const std::string& clientName) = 0;
};

}  // namespace qvk::platform
