#include "simulated_usb_bus.h"

#include <umockdev.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace qvk::test {

namespace {

using Text = std::unique_ptr<gchar, decltype(&g_free)>;

}  // namespace

SimulatedUsbBus::SimulatedUsbBus() : testbed_(umockdev_testbed_new()) {}

SimulatedUsbBus::~SimulatedUsbBus() { g_object_unref(testbed_); }

std::string SimulatedUsbBus::Folder() const { return Text(umockdev_testbed_get_root_dir(testbed_), g_free).get(); }

std::string SimulatedUsbBus::Plug(const std::string& name, std::uint16_t vendor, std::uint16_t product) {
    // As the kernel writes them: attribute values end with a newline; the uevent names the ids too.
    char v[5], p[5];
    std::snprintf(v, sizeof v, "%04x", vendor);
    std::snprintf(p, sizeof p, "%04x", product);
    return Add("usb", name, "", {"idVendor", v + std::string("\n"), "idProduct", p + std::string("\n")},
               {"DEVTYPE", "usb_device", "PRODUCT", std::string(v) + "/" + p + "/0"});
}

std::string SimulatedUsbBus::Add(const std::string& subsystem, const std::string& name, const std::string& parent,
                                 std::vector<std::string> attributes, std::vector<std::string> properties) {
    std::vector<gchar*> a, p;
    for (std::string& s : attributes) a.push_back(s.data());
    for (std::string& s : properties) p.push_back(s.data());
    a.push_back(nullptr);
    p.push_back(nullptr);
    // Adding sends the device's "add" uevent.
    Text syspath(umockdev_testbed_add_devicev(testbed_, subsystem.c_str(), name.c_str(),
                                              parent.empty() ? nullptr : parent.c_str(), a.data(), p.data()),
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
    if (current && *current) preload += std::string(" ") + current;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("re-executing with the umockdev preload library");
    std::exit(127);
}

}  // namespace qvk::test
