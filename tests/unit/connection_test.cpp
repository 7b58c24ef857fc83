// The network service's name and its removal from the current set, on real preference files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

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
Dictionary NetworkPreferences() {
    auto set = [] {
        return Dictionary{
            {"Network",
             Dictionary{
                 {"Service", Dictionary{{"ETH", Dictionary{}}, {"Quorvik_Modem-1", Dictionary{}}}},
                 {"Global", Dictionary{{"IPv4", Dictionary{{"ServiceOrder", Array{"ETH", "Quorvik_Modem-1", "WIFI",
                                                                                  "Quorvik_Modem-1"}}}}}}}}};
    };
    return Dictionary{{"CurrentSet", "/Sets/HOME"},
                      {"NetworkServices", Dictionary{{"Quorvik_Modem-1", Dictionary{{"UserDefinedName", "Modem"}}}}},
                      {"Sets", Dictionary{{"HOME", set()}, {"WORK", set()}}}};
}

Dictionary& At(Dictionary& root, std::initializer_list<const char*> path) {
    Dictionary* at = &root;
    for (const char* name : path) at = (*at)[name].AsDictionary();
    return *at;
}

TEST(ConnectionDelete, TakesTheServiceOutOfTheCurrentSetOnlyWhenEveryStepSucceeds) {
    TempDir dir;
    std::string path = dir.path() + "/preferences.plist";
    platform::SystemPreferencesFile store(path);
    platform::Replace<platform::SystemPreferencesStore> useStore(store);
    Scoped<const char*> name(QVK_Framework_Project_Name_Application, "Quorvik Modem");
    RecordingProcess root{501, 0};
    platform::Replace<platform::ProcessIdentity> useIdentity{root};
    Dictionary removed = NetworkPreferences();
    At(removed, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
    // Each change of the preferences, and whether the service then goes; nothing is saved otherwise.
    const std::pair<std::function<void(Dictionary&)>, bool> cases[] = {
        {[](Dictionary&) {}, true},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = Array{"ETH"};
         },
         true},
        {[](Dictionary& r) { r.erase("CurrentSet"); }, false},
        {[](Dictionary& r) { r["CurrentSet"] = Array{"/Sets/HOME"}; }, false},
        {[](Dictionary& r) { r["NetworkServices"] = Array{}; }, false},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
         },
         false},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global", "IPv4"}).erase("ServiceOrder");
         },
         false},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = "x";
         },
         false},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global"}).erase("IPv4");
         },
         false}};
    for (const auto& [change, goes] : cases) {
        Dictionary before = NetworkPreferences(), after = removed;
        change(before);
        change(after);
        WritePlist(path, before);
        QVK_Framework_Connection_Delete(1);
        Value* order = goes ? &At(after, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] : nullptr;
        if (order && *order == Value(Array{"ETH", "Quorvik_Modem-1", "WIFI", "Quorvik_Modem-1"}))
            *order = Array{"ETH", "WIFI"};
        EXPECT_EQ(platform::ReadPropertyList(path), Value(goes ? after : before));
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
