// A device list of `pairs` generated vendor and product pairs, for the arming figures.
#pragma once

#include <fstream>
#include <string>

namespace qvk::bench {

inline void WriteGeneratedDeviceList(const std::string& path, int pairs) {
    // A thousand products a vendor keeps the file below the 1 MiB a device list may hold.
    std::ofstream list(path);
    list << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<array>\n" << std::hex;
    for (int i = 0; i < pairs; ++i) {
        if (i % 1000 == 0)
            list << "<dict><key>USB</key><dict><key>Vendor</key><string>0x" << 0x6000 + i / 1000
                 << "</string><key>Product</key><array>\n";
        list << "<string>0x" << i % 1000 << "</string>\n";
        if (i % 1000 == 999 || i + 1 == pairs) list << "</array></dict></dict>\n";
    }
    list << "</array>\n</plist>\n";
}

}  // namespace qvk::bench
