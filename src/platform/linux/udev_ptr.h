// Owning pointers to libudev objects: each drops its reference when it goes.
#pragma once

#include <libudev.h>

#include <memory>

namespace qvk::platform {

struct UdevUnref {
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_monitor* monitor) const { udev_monitor_unref(monitor); }
    void operator()(udev_enumerate* scan) const { udev_enumerate_unref(scan); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
};

template <class T>
using UdevPtr = std::unique_ptr<T, UdevUnref>;

}  // namespace qvk::platform
