// main of test programs that load the real agent: its fixed places outside the home are private to the
// process.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>

#include "support/PrivateRoot.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (testing::GTEST_FLAG(list_tests))
    return RUN_ALL_TESTS();
  if (!EnterPrivateRoot() && geteuid() == 0) {
    std::fprintf(stderr, "cannot make /etc private to this test, and will not write to the machine's own\n");
    return 1;
  }
  return RUN_ALL_TESTS();
}
