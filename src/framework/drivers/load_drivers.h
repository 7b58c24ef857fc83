// Driver loading: the package's driver folders for the running processor and system release get
// their owner, modes and the kernel's loader at every start.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// Inside the application bundle: drivers loaded at every start, and those of the installer and of
// driver removal.
extern const char* const QVK_Framework_DriverDir;
extern const char* const QVK_Framework_DriverDir_Install;
// Processor names in driver folder names ("Drivers-x86-10_5").
extern const char* const CPU_x86;
extern const char* const CPU_ppc;

// Walks the driver folders chosen for this processor and the newest release that has any, three
// times over, each regular folder followed by its "-Demand" twin, and sub-packages
// ("*.Quorvik-Package") within them. Entries get owner and modes; those of regular folders are
// then loaded, or printed to standard output when `install` is set (the folders then come from
// "Contents/Drivers-Install"). Given `found`, nothing is changed or run and the flag tells whether
// a loadable entry exists. A `filter` keeps only names that begin with it.
void QVK_Framework_LoadDrivers(std::int32_t install, const std::optional<std::string>& filter, bool* found);

// The folder named `driverName` in the launcher bundle's "Contents/Drivers-Install" tree for this
// processor and release, or none.
std::optional<std::string> QVK_Framework_Drivers_GetPath(const std::string& driverName);
