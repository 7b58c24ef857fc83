// The user's preferences: one persistent domain of keys and values per application identifier.
#pragma once

#include <optional>
#include <string>

#include "platform/value.h"

namespace qvk::platform {

class Preferences {
public:
    virtual ~Preferences() = default;
    // The domain's keys and values as stored; none when the domain does not exist or can't be read.
    virtual std::optional<Dictionary> PersistentDomainForName(const std::string& domain) = 0;
    // The domain of the program's own user defaults: its main bundle's identifier, or the name of
    // its executable when the bundle has none.
    virtual std::string StandardDomain() = 0;
    // Removes `key` from the domain and writes the domain at once. A domain that does not exist,
    // can't be read or lacks the key is left as it is (nothing is made only to remove a key); a
    // rewritten domain keeps its owner and mode.
    virtual void RemoveObjectForKey(const std::string& domain, const std::string& key) = 0;
};

}  // namespace qvk::platform
