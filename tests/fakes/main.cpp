// main of every test program that runs on the private file system.
#include "tests/fakes/private_root.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

int main(int argc, char **argv) {
    testing::InitGoogleMock(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests))
        enter_private_root();
    return RUN_ALL_TESTS();
}
