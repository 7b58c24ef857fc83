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

struct GFreeDeleter {
    void operator()(gchar* p) const { g_free(p); }
};

std::string Hex4(std::uint16_t id) {
    char text[5];
    std::snprintf(text, sizeof text, "%04x", id);
    return text;
}

}  // namespace

SimulatedUsbBus::SimulatedUsbBus() : testbed_(umockdev_testbed_new()) {
    if (!testbed_) throw std::runtime_error("umockdev test bed could not be created");
}

SimulatedUsbBus::~SimulatedUsbBus() { g_object_unref(testbed_); }

std::string SimulatedUsbBus::Plug(const std::string& name, std::uint16_t vendor, std::uint16_t product) {
    std::string v = Hex4(vendor), p = Hex4(product);
    std::string triple = v + "/" + p + "/0";
    std::unique_ptr<gchar, GFreeDeleter> syspath(
        umockdev_testbed_add_device(testbed_, "usb", name.c_str(), nullptr, "idVendor", v.c_str(), "idProduct",
                                    p.c_str(), nullptr, "DEVTYPE", "usb_device", "PRODUCT", triple.c_str(), nullptr));
    if (!syspath) throw std::runtime_error("device " + name + " could not be added");
    umockdev_testbed_uevent(testbed_, syspath.get(), "add");
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
