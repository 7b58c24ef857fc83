// The per-thread dictionary that Foundation gives every thread.
#pragma once

#include "platform/value.h"

namespace qvk::platform {

Dictionary& CurrentThreadDictionary();

}  // namespace qvk::platform
