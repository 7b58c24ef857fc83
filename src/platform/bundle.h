// The main bundle: the running program's bundle folder and executable, fixed at start-up.
#pragma once

#include <string>
#include <vector>

namespace qvk::platform {

class Bundle {
public:
    virtual ~Bundle() = default;
    // "X.app" for an executable at "X.app/Contents/MacOS/<exe>", else the executable's folder.
    virtual std::string MainBundlePath() = 0;
    virtual std::string MainExecutablePath() = 0;
    // A descriptor of the running executable itself, whatever became of its path since (-1 when it
    // could not be opened). The bundle keeps it open; it is not inherited by other programs.
    virtual int MainExecutable() = 0;
    // The bundle's localizations (Contents/Resources/<language>.lproj) in the user's order of
    // preference; the development region when the user names none of them.
    virtual std::vector<std::string> PreferredLocalizations();
    // Those of the given language codes that the user prefers, most preferred first.
    virtual std::vector<std::string> PreferredLocalizationsFrom(const std::vector<std::string>& available);
};

}  // namespace qvk::platform
