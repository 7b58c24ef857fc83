// Enciphers a property list with one of the framework's built-in keys, so that the framework's
// encrypted-resource readers can load it.
//
//   encrypt_plist --product|--common <property list> <output file>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "framework/base/decrypt.h"
#include "platform/property_list.h"

namespace {

int Usage() {
    std::fprintf(stderr, "usage: encrypt_plist --product|--common <property list> <output file>\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return Usage();
    bool useProductKey;
    if (std::strcmp(argv[1], "--product") == 0) {
        useProductKey = true;
    } else if (std::strcmp(argv[1], "--common") == 0) {
        useProductKey = false;
    } else {
        return Usage();
    }
    const std::string input = argv[2], output = argv[3];

    std::ifstream in(input, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "encrypt_plist: cannot read %s: %s\n", input.c_str(), std::strerror(errno));
        return 1;
    }
    qvk::Data payload;
    payload.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    // The payload goes in as it is (XML or binary); it must be a property list the readers can parse.
    if (!qvk::platform::ParsePropertyList(std::string(payload.bytes.begin(), payload.bytes.end()))) {
        std::fprintf(stderr, "encrypt_plist: %s is not a property list\n", input.c_str());
        return 1;
    }
    std::optional<qvk::Data> cipher = QVK_Framework_Encrypt(payload, useProductKey);
    if (!cipher) {
        std::fprintf(stderr, "encrypt_plist: %s is too large\n", input.c_str());
        return 1;
    }
    std::ofstream out(output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(cipher->bytes.data()), static_cast<std::streamsize>(cipher->bytes.size()));
    out.close();
    if (!out) {
        std::fprintf(stderr, "encrypt_plist: cannot write %s\n", output.c_str());
        return 1;
    }
    return 0;
}
