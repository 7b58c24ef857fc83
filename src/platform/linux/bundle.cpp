#include "platform/bundle.h"

#include <fcntl.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

std::string ReadSelfExe() {
    std::vector<char> buf(256);
    for (;;) {
        ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size());
        if (n < 0) return {};
        if (static_cast<std::size_t>(n) < buf.size()) return std::string(buf.data(), static_cast<std::size_t>(n));
        buf.resize(buf.size() * 2);
    }
}

std::string Parent(std::string_view path) {
    auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

std::string BundleOf(const std::string& executable) {
    std::string macos = Parent(executable);
    std::string contents = Parent(macos);
    std::string bundle = Parent(contents);
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
        : executablePath_(ReadSelfExe()),
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
