#include "simulated_usb_bus.h"

#include <umockdev.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace qvk::test {

using Text = std::unique_ptr<gchar, decltype(&g_free)>;

SimulatedUsbBus::SimulatedUsbBus() : testbed_(umockdev_testbed_new()) {}

SimulatedUsbBus::~SimulatedUsbBus() { g_object_unref(testbed_); }

std::string SimulatedUsbBus::Folder() const { return Text(umockdev_testbed_get_root_dir(testbed_), g_free).get(); }

std::string SimulatedUsbBus::Plug(const std::string& name, std::uint16_t vendor, std::uint16_t product) {
    // As the kernel writes them: attribute values end with a newline; the uevent names the ids too.
    char v[5], p[5];
    std::snprintf(v, sizeof v, "%04x", vendor);
    std::snprintf(p, sizeof p, "%04x", product);
    // Adding sends the device's "add" uevent.
    Text syspath(
        umockdev_testbed_add_device(testbed_, "usb", name.c_str(), nullptr, "idVendor", (v + std::string("\n")).c_str(),
                                    "idProduct", (p + std::string("\n")).c_str(), nullptr, "DEVTYPE", "usb_device",
                                    "PRODUCT", (std::string(v) + "/" + p + "/0").c_str(), nullptr),
        g_free);
    if (!syspath) throw std::runtime_error("device " + name + " could not be added");
    return syspath.get();
}

void SimulatedUsbBus::Unplug(const std::string& syspath) {
    umockdev_testbed_uevent(testbed_, syspath.c_str(), "remove");
    umockdev_testbed_remove_device(testbed_, syspath.c_str());
}

void RunWithUmockdevPreload(char** argv) {
    constexpr const char* kPreload = "libumockdev-preload.so.0";
    const char* current = std::getenv("LD_PRELOAD");
    if (current && std::strstr(current, kPreload)) return;
    std::string preload = kPreload;
    if (current && *current) preload.append(" ").append(current);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("re-executing with the umockdev preload library");
    std::exit(127);
}

}  // namespace qvk::test
