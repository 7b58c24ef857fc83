// The USB tests run on a simulated bus, which needs umockdev's preload library from the start.
#include <gtest/gtest.h>

#include <cstdlib>

#include "simulated_usb_bus.h"

int main(int argc, char** argv) {
    // Blocks in malloc's per-thread cache count as in use; without that cache the bytes in use are
    // exact, as the burst test's memory check needs. Taken up by the re-execution.
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 0);
    qvk::test::RunWithUmockdevPreload(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
