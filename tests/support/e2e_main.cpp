// main() of every end-to-end test: the process must run under the umockdev preload
// before libusb or the testbed start.
#include <gtest/gtest.h>

#include "usbfs.h"

int main(int argc, char** argv) {
    polybus_sim::ensure_preloaded(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
