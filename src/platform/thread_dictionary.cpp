#include "platform/thread_dictionary.h"

namespace qvk::platform {

Dictionary& CurrentThreadDictionary() {
    thread_local Dictionary dictionary;
    return dictionary;
}

}  // namespace qvk::platform
