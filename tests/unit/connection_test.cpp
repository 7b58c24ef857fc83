// The network service's name and its removal from the current set, on real preference files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/identity.h"
#include "framework/connection/connection_name.h"
#include "framework/connection/privileged_connection_config.h"
#include "platform/linux/system_preferences_file.h"
#include "platform/property_list.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

TEST(ConnectionName, KeepsAllowedCharactersFoldsRunsOfOthersAndElseTakesTheSignedByteSum) {
    const std::tuple<const char*, std::uint32_t, bool, const char*> cases[] = {
        {"My Modem", 1, false, "My_Modem-1"},     {"  (Modem) !", 1, true, "Modem_-NDIS-1"},
        {"a.b_ c--d", 1, false, "a.b_c--d-1"},    {"Caf\xe9 Mobile", 4294967295u, false, "Caf_Mobile-4294967295"},
        {"   ", 2, true, "00000060-NDIS-2"},      {"\xe9 ", 1, false, "00000009-1"},
        {"\xff", 1, false, "ffffffffffffffff-1"}, {"", 7, false, "00000000-7"},
    };
    for (const auto& [application, index, ndis, name] : cases) {
        Scoped<const char*> use(QVK_Framework_Project_Name_Application, application);
        EXPECT_EQ(QVK_Framework_ConnectionName(index, ndis), name) << application;
    }
}

// The current set uses the modem's service and lists it twice in its order; another set too.
Dictionary NetworkPreferences(bool removed = false) {
    auto set = [](bool used) {
        Dictionary services{{"ETH", Dictionary{}}};
        if (used) services["Quorvik_Modem-1"] = Dictionary{};
        Array order = used ? Array{"ETH", "Quorvik_Modem-1", "WIFI", "Quorvik_Modem-1"} : Array{"ETH", "WIFI"};
        return Dictionary{
            {"Network",
             Dictionary{{"Service", services}, {"Global", Dictionary{{"IPv4", Dictionary{{"ServiceOrder", order}}}}}}}};
    };
    return Dictionary{{"CurrentSet", "/Sets/HOME"},
                      {"NetworkServices", Dictionary{{"Quorvik_Modem-1", Dictionary{{"UserDefinedName", "Modem"}}}}},
                      {"Sets", Dictionary{{"HOME", set(!removed)}, {"WORK", set(true)}}}};
}

TEST(ConnectionDelete, TakesTheServiceOutOfTheCurrentSetOnlyWhenEveryStepSucceeds) {
    TempDir dir;
    std::string path = dir.path() + "/preferences.plist";
    platform::SystemPreferencesFile store(path);
    platform::Replace<platform::SystemPreferencesStore> useStore(store);
    Scoped<const char*> name(QVK_Framework_Project_Name_Application, "Quorvik Modem");
    RecordingProcess root{501, 0};
    platform::Replace<platform::ProcessIdentity> useIdentity{root};
    // A key of the folder at a path replaced (erased where the value is null), and whether the
    // service then goes; nothing is saved otherwise.
    using Path = std::vector<const char*>;
    const Path ipv4{"Sets", "HOME", "Network", "Global", "IPv4"}, services{"Sets", "HOME", "Network", "Service"};
    const std::tuple<Path, const char*, Value, bool> cases[] = {
        {{}, "none", Value(), true},
        {ipv4, "ServiceOrder", Array{"ETH"}, true},
        {{}, "CurrentSet", Value(), false},
        {{}, "CurrentSet", Array{"/Sets/HOME"}, false},
        {{}, "NetworkServices", Array{}, false},
        {services, "Quorvik_Modem-1", Value(), false},
        {ipv4, "ServiceOrder", Value(), false},
        {ipv4, "ServiceOrder", "x", false},
        {{"Sets", "HOME", "Network", "Global"}, "IPv4", Value(), false}};
    for (const auto& [at, key, value, goes] : cases) {
        auto change = [&](Dictionary root) {
            Dictionary* folder = &root;
            for (const char* step : at) folder = (*folder)[step].AsDictionary();
            if (value.IsNull())
                folder->erase(key);
            else
                (*folder)[key] = value;
            return root;
        };
        WritePlist(path, change(NetworkPreferences()));
        QVK_Framework_Connection_Delete(1);
        EXPECT_EQ(platform::ReadPropertyList(path), Value(change(NetworkPreferences(goes)))) << key;
    }
    Dictionary settings{{"UserDefinedName", "Quorvik Modem"}};
    EXPECT_EQ(Privileged_InstallConnection(nullptr, &settings, "Quorvik_Modem-1"), 1001) << "settings are refused";
}

TEST(ConnectionRightsDeathTest, NeedsTheSuperUser) {
    RecordingProcess user(501, 501);
    platform::Replace<platform::ProcessIdentity> useIdentity(user);
    EXPECT_DEATH(QVK_Framework_Connection_Delete(1),
                 "Assertion failed: \\(getuid\\(\\)==0 \\|\\| geteuid\\(\\)==0\\), function "
                 "QVK_Framework_Connection_Delete, file Privileged_Connection_Config, line [0-9]+\\.");
}

}  // namespace
}  // namespace qvk::test
