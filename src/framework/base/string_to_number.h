// Number texts of the device list: "0x" hexadecimal, a leading "0" octal, else decimal.
#pragma once

#include "platform/value.h"

// A number for a string (the whole text must convert, else the process ends through an
// assertion); any other value is given back as it is.
qvk::Value QVK_Framework_StringToNumber(const qvk::Value& value);
