// What a user could write instead of the Launcher: a libudev monitor that starts
// `/usr/bin/open -a APP` whenever a USB device with the given ids is added, by fork and exec
// (--exec) or through `/bin/sh -c` (--shell).
//   udev_watcher --exec|--shell VENDOR PRODUCT APP     (ids as four hexadecimal digits)
#include <libudev.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool IdIs(udev_device* device, const char* attribute, long wanted) {
    const char* text = udev_device_get_sysattr_value(device, attribute);
    return text && std::strtol(text, nullptr, 16) == wanted;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 || (std::strcmp(argv[1], "--exec") != 0 && std::strcmp(argv[1], "--shell") != 0)) {
        std::fprintf(stderr, "usage: udev_watcher --exec|--shell VENDOR PRODUCT APP\n");
        return 2;
    }
    bool shell = std::strcmp(argv[1], "--shell") == 0;
    long vendor = std::strtol(argv[2], nullptr, 16);
    long product = std::strtol(argv[3], nullptr, 16);
    std::string command = std::string("/usr/bin/open -a \"") + argv[4] + "\"";
    // Children are reaped by the kernel.
    signal(SIGCHLD, SIG_IGN);

    udev* context = udev_new();
    udev_monitor* monitor = context ? udev_monitor_new_from_netlink(context, "udev") : nullptr;
    if (!monitor || udev_monitor_filter_add_match_subsystem_devtype(monitor, "usb", "usb_device") < 0 ||
        udev_monitor_enable_receiving(monitor) < 0) {
        std::fprintf(stderr, "udev_watcher: no udev monitor\n");
        return 1;
    }
    // The bus's preload library is for this process alone: what it starts runs as it would anywhere.
    unsetenv("LD_PRELOAD");
    pollfd watch{udev_monitor_get_fd(monitor), POLLIN, 0};
    for (;;) {
        if (poll(&watch, 1, -1) < 0) continue;
        while (udev_device* device = udev_monitor_receive_device(monitor)) {
            const char* action = udev_device_get_action(device);
            if (action && std::strcmp(action, "add") == 0 && IdIs(device, "idVendor", vendor) &&
                IdIs(device, "idProduct", product) && fork() == 0) {
                if (shell)
                    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
                else
                    execl("/usr/bin/open", "/usr/bin/open", "-a", argv[4], static_cast<char*>(nullptr));
                _exit(127);
            }
            udev_device_unref(device);
        }
    }
}
