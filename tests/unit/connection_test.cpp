// The network service's name and its removal from the current set, on real preference files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/identity.h"
#include "framework/connection/connection_name.h"
#include "framework/connection/privileged_connection_config.h"
#include "platform/linux/system_preferences_file.h"
#include "platform/process_identity.h"
#include "platform/property_list.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

std::string Name(const char* application, std::uint32_t index = 1, bool ndis = false) {
    Scoped<const char*> name(QVK_Framework_Project_Name_Application, application);
    return QVK_Framework_ConnectionName(index, ndis);
}

TEST(ConnectionName, KeepsAllowedCharactersAndFoldsEveryRunOfOthersIntoOneUnderscore) {
    EXPECT_EQ(Name("Modem"), "Modem-1");
    EXPECT_EQ(Name("My Modem"), "My_Modem-1");
    EXPECT_EQ(Name("Modem (3G)"), "Modem_3G_-1");
    EXPECT_EQ(Name("Modem", 1, true), "Modem-NDIS-1");
    // Never starts with "_"; a trailing run leaves one.
    EXPECT_EQ(Name("  (Modem) !"), "Modem_-1");
    // "_", "-" and "." are allowed; an allowed "_" ends a run as well.
    EXPECT_EQ(Name("a.b_ c--d"), "a.b_c--d-1");
    // Bytes outside ASCII are no allowed characters.
    EXPECT_EQ(Name("Caf\xe9 Mobile"), "Caf_Mobile-1");
    EXPECT_EQ(Name("Modem", 4294967295u, true), "Modem-NDIS-4294967295");
}

TEST(ConnectionName, NothingAllowedGivesTheSignedByteChecksum) {
    EXPECT_EQ(Name("   "), "00000060-1");
    EXPECT_EQ(Name("   ", 2, true), "00000060-NDIS-2");
    // 0xe9 counts as -23: -23 + 32 = 9.
    EXPECT_EQ(Name("\xe9 "), "00000009-1");
    // A negative sum wraps around the machine word: more than eight digits.
    EXPECT_EQ(Name("\xff"), "ffffffffffffffff-1");
    EXPECT_EQ(Name("", 7), "00000000-7");
}

// Wraps the file store and records what the removal does with its reference; can fail applying.
class RecordingStore : public platform::SystemPreferencesStore {
public:
    explicit RecordingStore(const std::string& path) : file_(path) {}
    std::unique_ptr<platform::SystemPreferences> Create(const std::string& clientName) override {
        calls.push_back("Create " + clientName);
        auto real = file_.Create(clientName);
        if (!real) return nullptr;
        return std::make_unique<Reference>(*this, std::move(real));
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

Dictionary Dict(std::initializer_list<std::pair<const std::string, Value>> entries) { return Dictionary(entries); }

// Two locations; the current one uses the modem's service and lists it twice in its order.
Dictionary NetworkPreferences() {
    auto set = [](const char* name) {
        return Dict(
            {{"UserDefinedName", name},
             {"Network",
              Dict({{"Service", Dict({{"ETH", Dict({{"__LINK__", "/NetworkServices/ETH"}})},
                                      {"Quorvik_Modem-1", Dict({{"__LINK__", "/NetworkServices/Quorvik_Modem-1"}})}})},
                    {"Global",
                     Dict({{"IPv4", Dict({{"ServiceOrder", Array{"ETH", "Quorvik_Modem-1", "WIFI", "Quorvik_Modem-1"}},
                                          {"PPPOverridePrimary", 0}})}})}})}});
    };
    return Dict({{"CurrentSet", "/Sets/HOME"},
                 {"NetworkServices", Dict({{"ETH", Dict({{"UserDefinedName", "Ethernet"}})},
                                           {"Quorvik_Modem-1", Dict({{"UserDefinedName", "Quorvik Modem"}})}})},
                 {"Sets", Dict({{"HOME", set("Home")}, {"WORK", set("Work")}})},
                 {"System", Dict({{"System", Dict({{"ComputerName", "test"}})}})}});
}

Dictionary& At(Dictionary& root, std::initializer_list<const char*> path) {
    Dictionary* at = &root;
    for (const char* name : path) at = (*at)[name].AsDictionary();
    return *at;
}

class ConnectionDelete : public ::testing::Test {
protected:
    void Write(const Dictionary& root) { WritePlist(path_, root); }
    Dictionary Read() {
        auto root = platform::ReadPropertyList(path_);
        EXPECT_TRUE(root && root->AsDictionary());
        return root && root->AsDictionary() ? *root->AsDictionary() : Dictionary();
    }
    // The removal with a reference of its own; the file must stay byte for byte when it fails.
    std::int32_t Remove(const Dictionary& root, const Dictionary* settings = nullptr) {
        Write(root);
        std::string before = ReadFile(path_);
        std::int32_t result = Privileged_InstallConnection(nullptr, settings, "Quorvik_Modem-1");
        if (result != 0) {
            EXPECT_EQ(ReadFile(path_), before) << "a failed removal saved something";
        }
        return result;
    }

    TempDir dir_;
    std::string path_ = dir_.path() + "/preferences.plist";
    RecordingStore store_{path_};
    platform::Replace<platform::SystemPreferencesStore> useStore_{store_};
    Scoped<const char*> name_{QVK_Framework_Project_Name_Application, "Quorvik Modem"};
    RecordingProcess root_{0, 0};
    platform::Replace<platform::ProcessIdentity> useIdentity_{root_};
};

TEST_F(ConnectionDelete, TakesTheServiceOutOfTheCurrentSetAndEveryPlaceInItsOrder) {
    Write(NetworkPreferences());
    CapturingLogger logger;
    Scoped<std::string> applicationName(QVK_Framework_ApplicationName, "Quorvik Mobile");
    QVK_Framework_Connection_Delete(1);

    Dictionary expected = NetworkPreferences();
    At(expected, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
    At(expected, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = Array{"ETH", "WIFI"};
    // The other location and the service's own entry stay.
    EXPECT_EQ(Value(Read()), Value(expected));

    EXPECT_THAT(store_.calls,
                ElementsAre("Create Quorvik Mobile", "Lock wait", "Remove /Sets/HOME/Network/Service/Quorvik_Modem-1",
                            "Set /Sets/HOME/Network/Global/IPv4", "Apply", "Commit", "Unlock"));
    std::vector<std::string> traces;
    for (const auto& e : logger.entries) {
        EXPECT_EQ(e.file + " " + e.type + " " + e.message.value_or("<none>"),
                  "Privileged_Connection_Config Trace <none>");
        traces.push_back(e.function);
    }
    EXPECT_THAT(traces, ElementsAre("QVK_Framework_Connection_Delete", "Privileged_InstallConnection", "RemoveService",
                                    "UpdateServiceOrder"));
}

TEST_F(ConnectionDelete, ASetReferenceIsNeededButAnEntryInTheOrderIsNot) {
    Dictionary root = NetworkPreferences();
    At(root, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = Array{"ETH"};
    EXPECT_EQ(Remove(root), 0);
    At(root, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
    EXPECT_EQ(Value(Read()), Value(root));

    // Without the set's reference to the service, the order that lists it is left alone.
    root = NetworkPreferences();
    At(root, {"Sets", "HOME", "Network", "Service"}).erase("Quorvik_Modem-1");
    store_.calls.clear();
    EXPECT_EQ(Remove(root), 1001);
    EXPECT_THAT(store_.calls, ::testing::Not(::testing::Contains(::testing::StartsWith("Set "))));
}

TEST_F(ConnectionDelete, NoCurrentSetChangesNothing) {
    Dictionary root = NetworkPreferences();
    root.erase("CurrentSet");
    EXPECT_EQ(Remove(root), 1001);
    root["CurrentSet"] = Array{"/Sets/HOME"};
    EXPECT_EQ(Remove(root), 1001);

    Write(root);
    platform::SystemPreferencesFile file(path_);
    auto prefs = file.Create("test");
    ASSERT_TRUE(prefs);
    EXPECT_EQ(GetSetPath(*prefs), std::nullopt);
    EXPECT_EQ(GetQuorvikPath(*prefs, "Quorvik_Modem-1"), std::nullopt);
    EXPECT_EQ(UpdateServiceOrder(*prefs, false, "Quorvik_Modem-1"), -4960);
}

TEST_F(ConnectionDelete, NothingIsSavedUnlessEveryStepSucceeds) {
    // A file that is missing or no dictionary gives the opening error.
    EXPECT_EQ(Privileged_InstallConnection(nullptr, nullptr, "Quorvik_Modem-1"), 1001);
    WriteFile(path_, "not a property list");
    EXPECT_EQ(Privileged_InstallConnection(nullptr, nullptr, "Quorvik_Modem-1"), 1001);
    EXPECT_EQ(ReadFile(path_), "not a property list");
    WriteFile(path_, platform::XmlPropertyList(Value(Array{"CurrentSet"})));
    EXPECT_EQ(Privileged_InstallConnection(nullptr, nullptr, "Quorvik_Modem-1"), 1001);

    Dictionary root = NetworkPreferences();
    root.erase("NetworkServices");
    EXPECT_EQ(Remove(root), 1001);
    root["NetworkServices"] = Array{};
    EXPECT_EQ(Remove(root), 1001);

    // The set's reference is gone in memory, but the order can't be updated.
    root = NetworkPreferences();
    At(root, {"Sets", "HOME", "Network", "Global", "IPv4"}).erase("ServiceOrder");
    EXPECT_EQ(Remove(root), -4960);
    At(root, {"Sets", "HOME", "Network", "Global", "IPv4"})["ServiceOrder"] = "Quorvik_Modem-1";
    EXPECT_EQ(Remove(root), -4960);
    At(root, {"Sets", "HOME", "Network", "Global"}).erase("IPv4");
    EXPECT_EQ(Remove(root), -4960);

    // Activation comes first; when it fails the changes are not committed.
    store_.calls.clear();
    store_.failApply = true;
    EXPECT_EQ(Remove(NetworkPreferences()), 1001);
    EXPECT_THAT(store_.calls, ::testing::Contains("Apply failed"));
    EXPECT_THAT(store_.calls, ::testing::Not(::testing::Contains("Commit")));
    EXPECT_EQ(store_.calls.back(), "Unlock");
}

TEST_F(ConnectionDelete, SettingsAreRefusedAndACallersReferenceIsNeitherLockedNorUnlocked) {
    Dictionary settings = Dict({{"UserDefinedName", "Quorvik Modem"}});
    EXPECT_EQ(Remove(NetworkPreferences(), &settings), 1001);

    Write(NetworkPreferences());
    auto prefs = store_.Create("caller");
    ASSERT_TRUE(prefs);
    store_.calls.clear();
    EXPECT_EQ(Privileged_InstallConnection(prefs.get(), nullptr, "Quorvik_Modem-1"), 0);
    EXPECT_THAT(store_.calls, ElementsAre("Remove /Sets/HOME/Network/Service/Quorvik_Modem-1",
                                          "Set /Sets/HOME/Network/Global/IPv4", "Apply", "Commit"));
    EXPECT_EQ(At(*Read().find("Sets")->second.AsDictionary(), {"HOME", "Network", "Service"}).count("Quorvik_Modem-1"),
              0u);
}

TEST(ConnectionRightsDeathTest, NeedsTheSuperUser) {
    RecordingProcess user(501, 501);
    platform::Replace<platform::ProcessIdentity> useIdentity(user);
    EXPECT_DEATH(QVK_Framework_Connection_Delete(1),
                 "Assertion failed: \\(getuid\\(\\)==0 \\|\\| geteuid\\(\\)==0\\), function "
                 "QVK_Framework_Connection_Delete, file Privileged_Connection_Config, line [0-9]+\\.");
}

TEST(ConnectionRights, EitherUserIdBeingTheSuperUserIsEnough) {
    TempDir dir;
    platform::SystemPreferencesFile missing(dir.path() + "/preferences.plist");
    platform::Replace<platform::SystemPreferencesStore> useStore(missing);
    for (auto [real, effective] : {std::pair{0u, 501u}, std::pair{501u, 0u}}) {
        RecordingProcess identity(real, effective);
        platform::Replace<platform::ProcessIdentity> useIdentity(identity);
        QVK_Framework_Connection_Delete(1);
    }
    // A missing file is not created, nor its lock.
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
}  // namespace qvk::test
