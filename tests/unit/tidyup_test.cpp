#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/basic/tidyup.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A participant registered under `name` for its lifetime; it notes each flag it gets.
class Participant : public QVK_Framework_Tidyup_Protocol {
public:
    explicit Participant(std::string name) : name_(std::move(name)) { QVK_Framework_RegisterClass(name_, *this); }
    ~Participant() override { QVK_Framework_UnregisterClass(name_); }
    void QVK_Framework_Tidyup_Action(bool flag) override { flags.push_back(flag); }
    std::vector<bool> flags;

private:
    std::string name_;
};

TEST(Tidyup, TheAutostartParticipantGetsTheFlagOnceRegistered) {
    QVK_Framework_Tidyup(true);
    Participant autostart("QVK_Framework_Autostart_Tidyup");
    QVK_Framework_Tidyup(true);
    QVK_Framework_Tidyup(false);
    EXPECT_THAT(autostart.flags, ElementsAre(true, false));
}

TEST(Tidyup, OnlyTheNamesOfTheTableTakePart) {
    Participant other("QVK_Framework_Other_Tidyup");
    QVK_Framework_Tidyup(true);
    EXPECT_THAT(other.flags, IsEmpty());
}

class NoParticipant : public QVK_Framework_Class {};

TEST(Tidyup, AClassWithoutTheActionUnderTheNameIsSkippedAndLogged) {
    CapturingLogger logger;
    NoParticipant cls;
    QVK_Framework_RegisterClass("QVK_Framework_Autostart_Tidyup", cls);
    QVK_Framework_Tidyup(true);
    QVK_Framework_UnregisterClass("QVK_Framework_Autostart_Tidyup");
    EXPECT_THAT(logger.MessagesOf("TidyupClass"),
                ElementsAre("QVK_Framework_Autostart_Tidyup does not take part in tidy-up"));
}

}  // namespace
}  // namespace qvk::test
