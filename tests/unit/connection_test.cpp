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

// Wraps the file store and records what the removal does with its reference; can fail applying.
class RecordingStore : public platform::SystemPreferencesStore {
public:
    explicit RecordingStore(const std::string& path) : file_(path) {}
    std::unique_ptr<platform::SystemPreferences> Create(const std::string& clientName) override {
        calls.push_back("Create " + clientName);
        auto real = file_.Create(clientName);
        return real ? std::make_unique<Reference>(*this, std::move(real)) : nullptr;
    }
    std::vector<std::string> calls;
    bool failApply = false;

private:
    class Reference : public platform::SystemPreferences {
    public:
        Reference(RecordingStore& store, std::unique_ptr<platform::SystemPreferences> real)
            : store_(store), real_(std::move(real)) {}
        bool Lock(bool wait) override { return Note(wait ? "Lock wait" : "Lock", real_->Lock(wait)); }
        bool Unlock() override { return Note("Unlock", real_->Unlock()); }
        std::optional<Value> GetValue(const std::string& key) override { return real_->GetValue(key); }
        std::optional<Dictionary> PathGetValue(const std::string& path) override { return real_->PathGetValue(path); }
        bool PathSetValue(const std::string& path, const Dictionary& value) override {
            return Note("Set " + path, real_->PathSetValue(path, value));
        }
        bool PathRemoveValue(const std::string& path) override {
            return Note("Remove " + path, real_->PathRemoveValue(path));
        }
        bool CommitChanges() override { return Note("Commit", real_->CommitChanges()); }
        bool ApplyChanges() override { return Note("Apply", !store_.failApply && real_->ApplyChanges()); }

    private:
        bool Note(const std::string& call, bool ok) {
            store_.calls.push_back(call + (ok ? "" : " failed"));
            return ok;
        }
        RecordingStore& store_;
        std::unique_ptr<platform::SystemPreferences> real_;
    };
    platform::SystemPreferencesFile file_;
};

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

class ConnectionDelete : public ::testing::Test {
protected:
    // The removal with a reference of its own; the file must stay byte for byte when it fails.
    std::int32_t Remove(const Dictionary& root) {
        WritePlist(path_, root);
        std::string before = ReadFile(path_);
        store_.calls.clear();
        std::int32_t result = Privileged_InstallConnection(nullptr, nullptr, "Quorvik_Modem-1");
        EXPECT_TRUE(result == 0 || ReadFile(path_) == before) << "a failed removal saved something";
        return result;
    }

    TempDir dir_;
    std::string path_ = dir_.path() + "/preferences.plist";
    RecordingStore store_{path_};
    platform::Replace<platform::SystemPreferencesStore> useStore_{store_};
    Scoped<const char*> name_{QVK_Framework_Project_Name_Application, "Quorvik Modem"};
    Scoped<std::string> applicationName_{QVK_Framework_ApplicationName, "Quorvik Mobile"};
};

TEST_F(ConnectionDelete, TakesTheServiceOutOfTheCurrentSetAndEveryPlaceInItsOrder) {
    WritePlist(path_, NetworkPreferences());
    RecordingProcess root{501, 0};
    platform::Replace<platform::ProcessIdentity> useIdentity{root};
    QVK_Framework_Connection_Delete(1);
    Dictionary expected = NetworkPreferences();
    At(expected, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
    At(expected, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = Array{"ETH", "WIFI"};
    EXPECT_EQ(platform::ReadPropertyList(path_), Value(expected));
    EXPECT_THAT(store_.calls,
                ElementsAre("Create Quorvik Mobile", "Lock wait", "Remove /Sets/HOME/Network/Service/Quorvik_Modem-1",
                            "Set /Sets/HOME/Network/Global/IPv4", "Apply", "Commit", "Unlock"));

    // An order without the service needs no change.
    Dictionary root2 = NetworkPreferences();
    At(root2, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = Array{"ETH"};
    EXPECT_EQ(Remove(root2), 0);
    EXPECT_THAT(store_.calls, ::testing::Not(::testing::Contains(::testing::StartsWith("Set "))));
}

TEST_F(ConnectionDelete, NothingIsSavedUnlessEveryStepSucceeds) {
    EXPECT_EQ(Privileged_InstallConnection(nullptr, nullptr, "Quorvik_Modem-1"), 1001) << "no file";
    const std::pair<std::function<void(Dictionary&)>, std::int32_t> cases[] = {
        {[](Dictionary& r) { r.erase("CurrentSet"); }, 1001},
        {[](Dictionary& r) { r["CurrentSet"] = Array{"/Sets/HOME"}; }, 1001},
        {[](Dictionary& r) { r["NetworkServices"] = Array{}; }, 1001},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
         },
         1001},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global", "IPv4"}).erase("ServiceOrder");
         },
         -4960},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = "x";
         },
         -4960},
        {[](Dictionary& r) {
             At(r, {"Sets", "HOME", "Network", "Global"}).erase("IPv4");
         },
         -4960},
    };
    for (const auto& [change, result] : cases) {
        Dictionary root = NetworkPreferences();
        change(root);
        EXPECT_EQ(Remove(root), result);
    }
    // Activation comes first; when it fails the changes are not committed.
    store_.failApply = true;
    EXPECT_EQ(Remove(NetworkPreferences()), 1001);
    EXPECT_THAT(store_.calls,
                ElementsAre("Create Quorvik Mobile", "Lock wait", "Remove /Sets/HOME/Network/Service/Quorvik_Modem-1",
                            "Set /Sets/HOME/Network/Global/IPv4", "Apply failed", "Unlock"));
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
