// A simulated USB bus: a umockdev test bed whose devices and uevents a process sees in place of the
// real /sys and udev events, once it runs with umockdev's preload library (RunWithUmockdevPreload).
// The one test bed of the tests, the benchmarks and the end-to-end bus program.
#pragma once

#include <cstdint>
#include <string>

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace qvk::test {

class SimulatedUsbBus {
public:
    SimulatedUsbBus();
    ~SimulatedUsbBus();
    SimulatedUsbBus(const SimulatedUsbBus&) = delete;
    SimulatedUsbBus& operator=(const SimulatedUsbBus&) = delete;

    // The test bed's folder: the UMOCKDEV_DIR of another process that is to see this bus.
    std::string Folder() const;
    // Adds a USB device (devtype usb_device) with these ids, announced by its "add" uevent; answers
    // its sysfs path.
    std::string Plug(const std::string& name, std::uint16_t vendor, std::uint16_t product);
    // Sends the device's "remove" uevent, then takes it out of sysfs.
    void Unplug(const std::string& syspath);
    // For what umockdev's own calls describe (devices of other kinds, device nodes).
    UMockdevTestbed* Testbed() const { return testbed_; }

private:
    UMockdevTestbed* testbed_;
};

// Returns when the process runs with umockdev's preload library; otherwise runs the program again
// with it (and does not return). Call first thing in main.
void RunWithUmockdevPreload(char** argv);

}  // namespace qvk::test
