// The simulated USB bus of the end-to-end scenarios, as a program. It holds the test bed while it
// runs (under umockdev's preload library, which its own uevents need) and obeys one-line commands
// on standard input, answering each with one line on standard output:
//   (at start)                        "ready <test bed folder>", the UMOCKDEV_DIR of the program under test
//   add <name> <vendor> <product>     a USB device with these hexadecimal ids appears -> "ok <sys path>"
//   remove <name>                     that device goes away -> "ok <sys path>"
// A command it cannot carry out is answered "error <command>" and changes nothing.
#include <iostream>
#include <map>
#include <sstream>

#include "simulated_usb_bus.h"

int main() {
    qvk::test::SimulatedUsbBus bus;
    std::map<std::string, std::string> plugged;
    std::cout << "ready " << bus.Folder() << std::endl;
    for (std::string command; std::getline(std::cin, command);) {
        std::istringstream words(command);
        std::string verb, name, extra;
        unsigned vendor = 0x10000, product = 0x10000;
        words >> verb >> name;
        if (verb == "add" && words >> std::hex >> vendor >> product && !(words >> extra) && vendor <= 0xffff &&
            product <= 0xffff && !plugged.contains(name)) {
            std::cout << "ok " << (plugged[name] = bus.Plug(name, vendor, product)) << std::endl;
        } else if (verb == "remove" && !(words >> extra) && plugged.contains(name)) {
            bus.Unplug(plugged[name]);
            std::cout << "ok " << plugged[name] << std::endl;
            plugged.erase(name);
        } else {
            std::cout << "error " << command << std::endl;
        }
    }
}
