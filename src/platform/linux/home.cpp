#include "platform/home.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "platform/service.h"

namespace qvk::platform {

namespace {

class LinuxHome final : public Home {
public:
    std::string HomeDirectory() override {
        const char* home = std::getenv("HOME");
        if (home && home[0] == '/') return home;
        long size = sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buf(size > 0 ? static_cast<std::size_t>(size) : 16384);
        passwd entry{};
        passwd* found = nullptr;
        if (getpwuid_r(getuid(), &entry, buf.data(), buf.size(), &found) == 0 && found && found->pw_dir)
            return found->pw_dir;
        return "/";
    }
};

}  // namespace

template <>
Home& DefaultService<Home>() {
    static LinuxHome home;
    return home;
}

}  // namespace qvk::platform
