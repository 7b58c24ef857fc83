// A simulated USB bus inside the test process: a umockdev test bed whose devices and uevents the
// process sees in place of the real /sys and udev events, once it runs with umockdev's preload
// library (RunWithUmockdevPreload).
#pragma once

#include <cstdint>
#include <string>

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace qvk::test {

class SimulatedUsbBus {
public:
    // Creates the test bed and points UMOCKDEV_DIR of this process (and its children) at it.
    SimulatedUsbBus();
    ~SimulatedUsbBus();
    SimulatedUsbBus(const SimulatedUsbBus&) = delete;
    SimulatedUsbBus& operator=(const SimulatedUsbBus&) = delete;

    // Adds a USB device (devtype usb_device) with these ids and sends its "add" event; answers its
    // sysfs path.
    std::string Plug(const std::string& name, std::uint16_t vendor, std::uint16_t product);
    // Sends the device's "remove" event, then takes it out of sysfs.
    void Unplug(const std::string& syspath);

private:
    UMockdevTestbed* testbed_;
};

// Returns when the process runs with umockdev's preload library; otherwise runs the program again
// with it (and does not return). Call first thing in main.
void RunWithUmockdevPreload(char** argv);

}  // namespace qvk::test
