#include "framework/connection/privileged_connection_config.h"

#include <algorithm>
#include <memory>

#include "framework/base/assert.h"
#include "framework/base/identity.h"
#include "framework/connection/connection_name.h"
#include "framework/log/logging.h"
#include "platform/format.h"
#include "platform/process_identity.h"
#include "platform/service.h"

namespace {

constexpr const char* kSource = "Privileged_Connection_Config";

void Trace(const char* function, std::uint32_t line) {
    QVK_Framework_Log_Internal(function, kSource, line, 5, nullptr);
}

}  // namespace

using qvk::platform::SystemPreferences;

void QVK_Framework_Connection_Delete(std::uint32_t index) {
    Trace("QVK_Framework_Connection_Delete", __LINE__);
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    QVK_Framework_Assert(process.RealUserID() == 0 || process.EffectiveUserID() == 0, "getuid()==0 || geteuid()==0",
                         "QVK_Framework_Connection_Delete", kSource, __LINE__);
    std::string serviceID = QVK_Framework_ConnectionName(index, false);
    Privileged_InstallConnection(nullptr, nullptr, serviceID);
}

std::int32_t Privileged_InstallConnection(SystemPreferences* prefs, const qvk::Dictionary* settings,
                                          const std::string& serviceID) {
    Trace("Privileged_InstallConnection", __LINE__);
    // A reference opened here is locked while it is used; the caller's own one is left as it is.
    std::unique_ptr<SystemPreferences> own;
    if (!prefs) {
        own = qvk::platform::Use<qvk::platform::SystemPreferencesStore>().Create(QVK_Framework_ApplicationName);
        if (!own || !own->Lock(true)) return kConnectionPreferencesError;
        prefs = own.get();
    }
    std::int32_t result = kConnectionPreferencesError;
    std::optional<qvk::Value> services = prefs->GetValue("NetworkServices");
    // Creating services is no part of this program: settings are refused.
    if (services && services->IsDictionary() && !settings) result = RemoveService(*prefs, serviceID);
    // Activated before saved; the changes of a failed step are never saved.
    if (result == 0) result = prefs->ApplyChanges() && prefs->CommitChanges() ? 0 : kConnectionPreferencesError;
    if (own) own->Unlock();
    return result;
}

std::int32_t RemoveService(SystemPreferences& prefs, const std::string& serviceID) {
    Trace("RemoveService", __LINE__);
    std::optional<std::string> path = GetQuorvikPath(prefs, serviceID);
    if (!path || !prefs.PathRemoveValue(*path)) return kConnectionPreferencesError;
    // The service's own entry under "NetworkServices" stays; only the set's use of it goes.
    return UpdateServiceOrder(prefs, false, serviceID);
}

std::int32_t UpdateServiceOrder(SystemPreferences& prefs, bool add, const std::string& serviceID) {
    Trace("UpdateServiceOrder", __LINE__);
    std::optional<std::string> setPath = GetSetPath(prefs);
    if (!setPath) return kConnectionGenericError;
    std::string ipv4Path = qvk::Format("%@/Network/Global/IPv4", *setPath);
    std::optional<qvk::Dictionary> ipv4 = prefs.PathGetValue(ipv4Path);
    if (!ipv4) return kConnectionGenericError;
    auto order = ipv4->find("ServiceOrder");
    if (order == ipv4->end() || !order->second.IsArray()) return kConnectionGenericError;

    qvk::Array changed = *order->second.AsArray();
    const qvk::Value service(serviceID);
    bool contains = std::find(changed.begin(), changed.end(), service) != changed.end();
    if (contains == add) return 0;
    if (add)
        changed.push_back(service);
    else
        std::erase(changed, service);
    order->second = std::move(changed);
    return prefs.PathSetValue(ipv4Path, *ipv4) ? 0 : kConnectionGenericError;
}

std::optional<std::string> GetSetPath(SystemPreferences& prefs) {
    std::optional<qvk::Value> set = prefs.GetValue("CurrentSet");
    if (!set || !set->AsString()) return std::nullopt;
    return *set->AsString();
}

std::optional<std::string> GetQuorvikPath(SystemPreferences& prefs, const std::string& serviceID) {
    std::optional<std::string> setPath = GetSetPath(prefs);
    if (!setPath) return std::nullopt;
    return qvk::Format("%@/Network/Service/%@", *setPath, serviceID);
}
