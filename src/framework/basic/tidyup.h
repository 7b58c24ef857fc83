// Tidy-up: framework modules that install something for the user (the autostart entry) undo it
// when the package is removed or moved. Each takes part as a class registered under a name of
// `TidyupClasses`.
#pragma once

#include <array>

#include "framework/base/class_registry.h"

class QVK_Framework_Tidyup_Protocol : public QVK_Framework_Class {
public:
    // `flag` is true when the whole package is being removed, false when it was only moved.
    virtual void QVK_Framework_Tidyup_Action(bool flag) = 0;
};

// The names of the participating classes.
extern const std::array<const char*, 1> TidyupClasses;

// Sends the tidy-up action to the class registered as `className`; nothing when there is none.
void TidyupClass(const char* className, bool flag);

// Runs the tidy-up action of every participant.
void QVK_Framework_Tidyup(bool flag);
