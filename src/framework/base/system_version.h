// The running system's version as one comparable number 0x10MB, and as text.
#pragma once

#include <cstdint>
#include <string>

std::uint32_t QVK_Framework_SystemVersion();
// "major.minor.bugfix", taken once per process.
std::string QVK_Framework_SystemVersionDetailed();
// Where kernel extensions live on this release.
std::string KextFolder();
