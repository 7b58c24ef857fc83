// The main bundle: the running program's bundle folder and executable, fixed at start-up.
#pragma once

#include <string>

namespace qvk::platform {

class Bundle {
public:
    virtual ~Bundle() = default;
    // "X.app" for an executable at "X.app/Contents/MacOS/<exe>", else the executable's folder.
    virtual std::string MainBundlePath() = 0;
    virtual std::string MainExecutablePath() = 0;
};

}  // namespace qvk::platform
