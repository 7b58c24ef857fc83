#include "platform/path.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

namespace qvk::platform {

namespace {

constexpr std::size_t kFirstSize = 256;

// Calls `read(buffer, size)` with ever larger buffers until the text fits: `read` gives the
// length, or -1 with errno ERANGE for a buffer too small, or -1 for a failure.
template <class Read>
std::optional<std::string> ReadGrowing(Read read) {
    std::vector<char> buffer(kFirstSize);
    for (;;) {
        errno = 0;
        ssize_t n = read(buffer.data(), buffer.size());
        if (n >= 0 && static_cast<std::size_t>(n) < buffer.size())
            return std::string(buffer.data(), static_cast<std::size_t>(n));
        if (n < 0 && errno != ERANGE) return std::nullopt;
        buffer.resize(buffer.size() * 2);
    }
}

}  // namespace

std::string ParentFolder(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return {};
    return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

std::optional<std::string> ReadLink(const std::string& path) {
    // A target that fills the whole buffer may have been cut short: only a shorter one is whole.
    return ReadGrowing([&path](char* buffer, std::size_t size) { return readlink(path.c_str(), buffer, size); });
}

std::optional<std::string> WorkingDirectory() {
    return ReadGrowing([](char* buffer, std::size_t size) -> ssize_t {
        if (!getcwd(buffer, size)) return -1;
        return static_cast<ssize_t>(std::char_traits<char>::length(buffer));
    });
}

}  // namespace qvk::platform
