#include "platform/bundle.h"

#include <fcntl.h>

#include <string_view>

#include "platform/path.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

std::string BundleOf(const std::string& executable) {
    std::string macos = ParentFolder(executable);
    std::string contents = ParentFolder(macos);
    std::string bundle = ParentFolder(contents);
    auto endsWith = [](std::string_view s, std::string_view tail) {
        return s.size() >= tail.size() && s.substr(s.size() - tail.size()) == tail;
    };
    if (endsWith(macos, "/Contents/MacOS") && endsWith(bundle, ".app")) return bundle;
    return macos;
}

class LinuxBundle final : public Bundle {
public:
    // Read once, so that the paths stay those of the start even after the bundle is moved; the
    // running image itself is opened, not whatever its path names by then.
    LinuxBundle()
        : executablePath_(ReadLink("/proc/self/exe").value_or("")),
          bundle_(BundleOf(executablePath_)),
          executable_(open("/proc/self/exe", O_RDONLY | O_CLOEXEC)) {}
    std::string MainBundlePath() override { return bundle_; }
    std::string MainExecutablePath() override { return executablePath_; }
    int MainExecutable() override { return executable_.get(); }

private:
    std::string executablePath_;
    std::string bundle_;
    UniqueFd executable_;
};

}  // namespace

template <>
Bundle& DefaultService<Bundle>() {
    static LinuxBundle bundle;
    return bundle;
}

}  // namespace qvk::platform
