#include "InstanceLock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/TempHome.h"

namespace {

TEST(InstanceLock, SecondOne_IsTaken_UntilTheFirstIsGone) {
  CTempHome home;
  {
    CInstanceLock first, second;
    EXPECT_EQ(first.Lock(home.Root()), CInstanceLock::EResult::Locked);
    EXPECT_EQ(home.ReadFile("run/zxhost.lock"), CPString(std::to_string(getpid()) + "\n"));
    EXPECT_EQ(second.Lock(home.Root()), CInstanceLock::EResult::Taken);
  }
  CInstanceLock third;
  EXPECT_EQ(third.Lock(home.Root()), CInstanceLock::EResult::Locked);
}

TEST(InstanceLock, StaleFile_DoesNotLock) {
  CTempHome home;
  home.WriteFile("run/zxhost.lock", "999999999999\n");
  CInstanceLock lock;
  EXPECT_EQ(lock.Lock(home.Root()), CInstanceLock::EResult::Locked);
}

TEST(InstanceLock, Failed_WhenThereIsNoPlace) {
  CTempHome home;
  home.WriteFile("run", "a file");
  CInstanceLock lock;
  EXPECT_EQ(lock.Lock(home.Root()), CInstanceLock::EResult::Failed);
  CTempHome linked;
  linked.MakeDir("run");
  ASSERT_EQ(symlink("/dev/null", linked.Path("run/zxhost.lock").c_str()), 0);
  CInstanceLock viaLink;
  EXPECT_EQ(viaLink.Lock(linked.Root()), CInstanceLock::EResult::Failed);
}

}  // namespace
