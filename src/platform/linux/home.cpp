#include "platform/home.h"

#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "platform/account.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

std::string ReadHome() {
    const char* home = std::getenv("HOME");
    if (home && home[0] == '/') return home;
    std::optional<Account> account = LookUpAccount(getuid());
    return account ? account->home : "/";
}

class LinuxHome final : public Home {
public:
    // Read once, before other threads start: later changes of the environment neither move the
    // home folder nor race with a thread that reads it.
    std::string HomeDirectory() override {
        static const std::string home = ReadHome();
        return home;
    }
};

}  // namespace

template <>
Home& DefaultService<Home>() {
    static LinuxHome home;
    return home;
}

}  // namespace qvk::platform
