#include "framework/connection/connection_name.h"

#include <bitset>
#include <memory>

#include "framework/base/global_mutex.h"
#include "framework/base/identity.h"
#include "platform/format.h"

namespace {

using CharacterSet = std::bitset<256>;

// Built on first use and kept for the life of the process.
std::unique_ptr<const CharacterSet> AllowedCharacters;

const CharacterSet& Allowed() {
    QVK_Framework_GlobalLock lock;
    if (!AllowedCharacters) {
        auto set = std::make_unique<CharacterSet>();
        for (const char* c = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-."; *c; ++c)
            set->set(static_cast<unsigned char>(*c));
        AllowedCharacters = std::move(set);
    }
    return *AllowedCharacters;
}

}  // namespace

std::string QVK_Framework_ConnectionName(std::uint32_t index, bool ndis) {
    const CharacterSet& allowed = Allowed();
    std::string name;
    // The bytes summed as signed chars into an unsigned machine word, so non-ASCII bytes wrap.
    unsigned long checksum = 0;
    const char* application = QVK_Framework_Project_Name_Application ? QVK_Framework_Project_Name_Application : "";
    for (const char* p = application; *p; ++p) {
        checksum += static_cast<unsigned long>(static_cast<long>(static_cast<signed char>(*p)));
        if (allowed.test(static_cast<unsigned char>(*p)))
            name += *p;
        else if (!name.empty() && name.back() != '_')
            name += '_';
    }
    if (name.empty()) name = qvk::Format("%08lx", checksum);
    if (ndis) name += "-NDIS";
    name += qvk::Format("-%u", index);
    return name;
}
