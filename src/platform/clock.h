// The current date, as the Mac's date objects give it.
#pragma once

namespace qvk::platform {

class Clock {
public:
    virtual ~Clock() = default;
    // Seconds since 1970-01-01 00:00:00 UTC.
    virtual double Now() = 0;
};

}  // namespace qvk::platform
