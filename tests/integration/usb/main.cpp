// The USB tests run on a simulated bus, which needs umockdev's preload library from the start.
#include <gtest/gtest.h>

#include "simulated_usb_bus.h"

int main(int argc, char** argv) {
    qvk::test::RunWithUmockdevPreload(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
