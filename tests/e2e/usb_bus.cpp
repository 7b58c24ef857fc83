// A simulated USB bus for the end-to-end scenarios. It owns an umockdev testbed for as long as it
// runs (under the umockdev preload library, which its own uevents need) and obeys one-line commands
// on standard input, answering each with one line on standard output:
//   (at start)                        "ready <testbed folder>", the UMOCKDEV_DIR of the program under test
//   add <name> <vendor> <product>     a USB device with these hexadecimal ids appears -> "ok <sys path>"
//   remove <name>                     that device goes away -> "ok <sys path>"
// A command it cannot carry out is answered "error <reason>" and changes nothing.
#include <umockdev.h>

#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

namespace {

struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct Free {
    void operator()(gchar* text) const { g_free(text); }
};
using Text = std::unique_ptr<gchar, Free>;

bool IsHexId(const std::string& text) {
    return text.size() == 4 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

class Bus {
public:
    Bus() : testbed_(umockdev_testbed_new()) {}

    std::string Folder() const { return Text(umockdev_testbed_get_root_dir(testbed_.get())).get(); }

    std::string Answer(const std::string& command) {
        std::istringstream words(command);
        std::string verb, name, vendor, product, extra;
        words >> verb >> name;
        if (verb == "add") {
            if (!(words >> vendor >> product) || words >> extra || name.empty())
                return "error usage: add <name> <vendor> <product>";
            if (!IsHexId(vendor) || !IsHexId(product)) return "error ids are four hexadecimal digits";
            if (devices_.contains(name)) return "error " + name + " is plugged in already";
            // The kernel ends sysfs attribute values with a newline.
            std::string vendorValue = vendor + "\n", productValue = product + "\n";
            Text path(umockdev_testbed_add_device(testbed_.get(), "usb", name.c_str(), nullptr, "idVendor",
                                                  vendorValue.c_str(), "idProduct", productValue.c_str(), nullptr,
                                                  "DEVTYPE", "usb_device", nullptr));
            // Adding announces the device ("add" uevent) by itself.
            if (!path) return "error the testbed refused " + name;
            return "ok " + (devices_[name] = path.get());
        }
        if (verb == "remove") {
            if (words >> extra) return "error usage: remove <name>";
            auto device = devices_.find(name);
            if (device == devices_.end()) return "error no device " + name;
            std::string path = device->second;
            umockdev_testbed_uevent(testbed_.get(), path.c_str(), "remove");
            umockdev_testbed_remove_device(testbed_.get(), path.c_str());
            devices_.erase(device);
            return "ok " + path;
        }
        return "error unknown command: " + command;
    }

private:
    std::unique_ptr<UMockdevTestbed, ObjectUnref> testbed_;
    std::map<std::string, std::string> devices_;
};

}  // namespace

int main() {
    Bus bus;
    std::cout << "ready " << bus.Folder() << std::endl;
    std::string command;
    while (std::getline(std::cin, command)) std::cout << bus.Answer(command) << std::endl;
    return 0;
}
