// Taking the package's network service out of the system network preferences: the current set's
// reference to the service and its place in the set's service order. Needs the super-user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/system_preferences.h"
#include "platform/value.h"

// Result codes besides 0: the preferences could not be opened, locked, read or saved, or the
// service reference could not be removed; and the platform's generic error.
constexpr std::int32_t kConnectionPreferencesError = 1001;
constexpr std::int32_t kConnectionGenericError = -4960;

// Removes the service of connection `index`; failures are ignored. Asserts super-user rights.
void QVK_Framework_Connection_Delete(std::uint32_t index);

// Without `prefs` it opens and locks its own reference (waiting for other writers). With no
// `settings` it removes the service, then applies and commits; installing is refused with 1001.
std::int32_t Privileged_InstallConnection(qvk::platform::SystemPreferences* prefs, const qvk::Dictionary* settings,
                                          const std::string& serviceID);

std::int32_t RemoveService(qvk::platform::SystemPreferences& prefs, const std::string& serviceID);

// Adds `serviceID` to, or removes every occurrence of it from, the current set's service order.
std::int32_t UpdateServiceOrder(qvk::platform::SystemPreferences& prefs, bool add, const std::string& serviceID);

// The current set's path ("CurrentSet"); none when there is none.
std::optional<std::string> GetSetPath(qvk::platform::SystemPreferences& prefs);

// "<set path>/Network/Service/<serviceID>"; none when there is no current set.
std::optional<std::string> GetQuorvikPath(qvk::platform::SystemPreferences& prefs, const std::string& serviceID);
