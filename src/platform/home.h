// The home folder of the user the program acts for.
#pragma once

#include <string>

namespace qvk::platform {

class Home {
public:
    virtual ~Home() = default;
    // The same folder for the life of the process.
    virtual std::string HomeDirectory() = 0;
};

}  // namespace qvk::platform
