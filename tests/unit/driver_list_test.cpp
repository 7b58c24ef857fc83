#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/drivers/driver_list.h"
#include "platform/property_list.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DriverList : public ::testing::Test {
protected:
    void WriteList(const Value& list) {
        WriteFile(folder_.path() + "/Contents/Resources/NetworkBlocker.xml", platform::XmlPropertyList(list));
    }
    std::vector<std::string> Names(std::uint32_t version) {
        FakeGestalt gestalt(version);
        platform::Replace<platform::Gestalt> useGestalt(gestalt);
        std::vector<std::string> names;
        for (const Value& name : GetDriversFromNetworksBlocker(folder_.path()).members)
            names.push_back(*name.AsString());
        return names;
    }

    TempDir folder_;
    CapturingLogger logger_;
};

TEST_F(DriverList, EveryDevicesDriversForThisReleaseEachOnce) {
    WriteList(Array{
        Dictionary{{"Drivers", Array{"Modem.kext", "10.5::Old.kext", "10.9::New.kext", "10.5:Tagged.kext"}}},
        Dictionary{{"USB", Dictionary{}}},
        Dictionary{{"Drivers", Array{"Modem.kext", 7, "Serial.kext"}}},
        Value("no device"),
        Dictionary{{"Drivers", "Modem.kext"}},
    });
    EXPECT_THAT(Names(0x1080), ElementsAre("Modem.kext", "Old.kext", "10.5:Tagged.kext", "Serial.kext"));
    EXPECT_THAT(Names(0x1090), ElementsAre("Modem.kext", "New.kext", "Serial.kext"));
    // The log writes the set's line breaks as "\n".
    EXPECT_EQ(logger_.MessagesOf("GetDriversFromNetworksBlocker").back(),
              "GetDriversFromNetworksBlocker(" + folder_.path() +
                  "): {(\\n    \"Modem.kext\",\\n    \"New.kext\",\\n    \"Serial.kext\"\\n)}");
}

TEST_F(DriverList, AMissingOrForeignFileGivesNoNames) {
    EXPECT_THAT(Names(0x1068), IsEmpty());
    WriteList(Dictionary{{"Drivers", Array{"Modem.kext"}}});
    EXPECT_THAT(Names(0x1068), IsEmpty());
}

}  // namespace
}  // namespace qvk::test
