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
};

}  // namespace qvk::platform
