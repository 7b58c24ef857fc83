// The identity of the enclosing application, taken from its Info.plist.
#pragma once

#include <optional>
#include <string>

// The enclosing application's "Contents" folder: "<launcher bundle>/../Contents".
std::string ParentPath();
// The enclosing application's value for `key` when it is a string.
std::optional<std::string> GetBundleString(const std::string& key);
// That value as ISO Latin-1 text kept for the process; empty when absent or not representable.
const char* GetCString(const std::string& key);
// Fills the application, project and bundle names, the identifier and the build id.
void GetAppName();

// Forgets the loaded property list, so that a test can read another one.
void ForgetBundleDictionaryForTesting();
