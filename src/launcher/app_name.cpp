#include "launcher/app_name.h"

#include "framework/base/identity.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/property_list.h"
#include "platform/service.h"

namespace {

// Kept once read; an unreadable list is tried again on the next call.
std::optional<qvk::Value> Dict;

constexpr std::size_t kBuildIdLength = 13;

}  // namespace

std::string ParentPath() { return qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath() + "/../Contents"; }

std::optional<std::string> GetBundleString(const std::string& key) {
    if (!Dict) Dict = qvk::platform::ReadPropertyList(ParentPath() + "/Info.plist");
    if (!Dict) return std::nullopt;
    const std::string* value = (*Dict)[key].AsString();
    return value ? std::optional<std::string>(*value) : std::nullopt;
}

const char* GetCString(const std::string& key) {
    std::optional<std::string> value = GetBundleString(key);
    std::optional<std::string> latin1 = value ? QVK_Framework_EncodeLatin1(*value) : std::nullopt;
    if (!latin1) return "";
    const char* result = QVK_Framework_KeepText(*latin1);
    QVK_Framework_Log_Internal("GetCString", "AppName", 61, 5, "%@ -> %s", key, result);
    return result;
}

void GetAppName() {
    QVK_Framework_ApplicationName = GetBundleString("CFBundleDisplayName").value_or("");
    QVK_Framework_Project_Name = GetCString("CFBundleDisplayName");
    QVK_Framework_Project_Name_Application = QVK_Framework_Project_Name;
    QVK_Framework_Project_Name_Bundle = GetCString("CFBundleName");
    QVK_Framework_Project_Identifier = GetBundleString("CFBundleIdentifier").value_or("");

    std::optional<std::string> version = GetBundleString("CFBundleVersion");
    if (!version || version->size() < kBuildIdLength) return;
    QVK_Framework_BuildID_App = QVK_Framework_KeepText(version->substr(version->size() - kBuildIdLength));
    QVK_Framework_Log_Internal("GetAppName", "AppName", 90, 5, "QVK_Framework_BuildID=\"%s\"",
                               QVK_Framework_BuildID_App);
}

void ForgetBundleDictionaryForTesting() { Dict.reset(); }
