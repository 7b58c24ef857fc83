// Ownership and modes of the package's drivers: owner 0:0, folders 0755, everything else 0644.
#pragma once

#include <string>

// Gives `path` and, for a folder, everything beneath it owner 0:0 and modes 0755 (folders) or 0644
// (the rest). Links are followed while their target stays inside the application folder; false
// when the path does not resolve, leads out of the application folder, is a file with more than
// one link, or a folder beneath it cannot be read (the walk stops at the first such entry).
bool QVK_Framework_SetDriverPermissions(const std::string& path);
