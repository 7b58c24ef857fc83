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

// Puts `cls` (or nothing) under `name` for its lifetime, then gives the name back to the class the
// program had registered there.
class ScopedClass {
public:
    ScopedClass(std::string name, QVK_Framework_Class* cls)
        : name_(std::move(name)), previous_(QVK_Framework_ClassNamed(name_)) {
        if (cls)
            QVK_Framework_RegisterClass(name_, *cls);
        else
            QVK_Framework_UnregisterClass(name_);
    }
    ~ScopedClass() {
        if (previous_)
            QVK_Framework_RegisterClass(name_, *previous_);
        else
            QVK_Framework_UnregisterClass(name_);
    }

private:
    std::string name_;
    QVK_Framework_Class* previous_;
};

// A participant registered under `name` for its lifetime; it notes each flag it gets.
class Participant : public QVK_Framework_Tidyup_Protocol {
public:
    explicit Participant(std::string name) : registration_(std::move(name), this) {}
    void QVK_Framework_Tidyup_Action(bool flag) override { flags.push_back(flag); }
    std::vector<bool> flags;

private:
    ScopedClass registration_;
};

constexpr const char* kAutostart = "QVK_Framework_Autostart_Tidyup";

TEST(Tidyup, TheAutostartParticipantGetsTheFlag) {
    Participant autostart(kAutostart);
    QVK_Framework_Tidyup(true);
    QVK_Framework_Tidyup(false);
    EXPECT_THAT(autostart.flags, ElementsAre(true, false));
}

TEST(Tidyup, OnlyTheNamesOfTheTableTakePart) {
    ScopedClass noAutostart(kAutostart, nullptr);
    Participant other("QVK_Framework_Other_Tidyup");
    QVK_Framework_Tidyup(true);
    EXPECT_THAT(other.flags, IsEmpty());
}

class NoParticipant : public QVK_Framework_Class {};

TEST(Tidyup, AClassWithoutTheActionUnderTheNameIsSkippedAndLogged) {
    CapturingLogger logger;
    NoParticipant cls;
    {
        ScopedClass notTakingPart(kAutostart, &cls);
        QVK_Framework_Tidyup(true);
    }
    EXPECT_THAT(logger.MessagesOf("TidyupClass"),
                ElementsAre("QVK_Framework_Autostart_Tidyup does not take part in tidy-up"));
}

}  // namespace
}  // namespace qvk::test
