// The small parts: acknowledgement table, lookups, wake-up, threads, escaping.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "platform/cloud/AckTable.h"
#include "platform/cloud/CloudThread.h"
#include "platform/cloud/HttpClient.h"
#include "platform/cloud/Resolver.h"
#include "support/Waiter.h"

using namespace zxcloud;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(AckTable, Ack_FindsItsToken_WhicheverComesFirst) {
  CAckTable table;
  EXPECT_FALSE(table.Bind(1, 100));
  EXPECT_EQ(table.Ack(1), 100u);
  EXPECT_EQ(table.Ack(2), std::nullopt);
  EXPECT_TRUE(table.Bind(2, 200));
  EXPECT_FALSE(table.Bind(2, 201));  // the number is in use again
  table.Clear();
  EXPECT_EQ(table.Ack(2), std::nullopt);
}

namespace {

CEventWaiter* g_pRelease = nullptr;

bool HangingResolve(const std::string& strHost, std::vector<std::string>& list, std::string&) {
  g_pRelease->Wait(1, 60000);
  list.push_back("ip of " + strHost);
  return true;
}

bool FailingResolve(const std::string&, std::vector<std::string>&, std::string& strError) {
  strError = "name not resolved: test";
  return false;
}

bool Readable(int fd, int iMs) {
  pollfd one{fd, POLLIN, 0};
  return poll(&one, 1, iMs) == 1;
}

}  // namespace

TEST(Resolver, Ask_AnswersOnce_AndSignals) {
  const auto pWakeup = std::make_shared<CWakeup>();
  CResolver resolver(pWakeup, FailingResolve);
  std::vector<std::string> list;
  std::string strError;
  EXPECT_EQ(resolver.Take(list, strError), CResolver::EAnswer::None);
  ASSERT_TRUE(resolver.Ask("a", strError));
  ASSERT_TRUE(Readable(pWakeup->Descriptor(), 10000));
  EXPECT_EQ(resolver.Take(list, strError), CResolver::EAnswer::Failed);
  EXPECT_EQ(strError, "name not resolved: test");
  EXPECT_EQ(resolver.Take(list, strError), CResolver::EAnswer::None);
}

TEST(Resolver, HangingLookups_AreBounded_AndOutliveTheirAsker) {
  CEventWaiter release;
  g_pRelease = &release;
  std::vector<std::string> list;
  std::string strError;
  const auto pWakeup = std::make_shared<CWakeup>();
  {
    CResolver resolver(pWakeup, HangingResolve);
    ASSERT_TRUE(resolver.Ask("same", strError));
    for (int i = 0; i < 100; ++i)
      ASSERT_TRUE(resolver.Ask("same", strError));  // one thread for all of them
    bool bRefused = false;
    for (int i = 0; i < 20 && !bRefused; ++i)
      bRefused = !resolver.Ask("other" + std::to_string(i), strError);
    EXPECT_TRUE(bRefused);
    EXPECT_THAT(strError, HasSubstr("earlier lookups still hang"));
  }
  release.Set();
  CResolver again(pWakeup, HangingResolve);
  ASSERT_TRUE(EventuallyTrue([&] { return again.Ask("x", strError); }));
  ASSERT_TRUE(EventuallyTrue([&] { return again.Take(list, strError) == CResolver::EAnswer::Found; }));
  EXPECT_THAT(list, ElementsAre("ip of x"));
  // The threads read g_pRelease: they must be gone before it is.
  ASSERT_TRUE(EventuallyTrue([&] { return pWakeup.use_count() <= 2; }));
}

TEST(Resolver, ResolveHost_GivesLiterals) {
  std::vector<std::string> list;
  std::string strError;
  ASSERT_TRUE(ResolveHost("127.0.0.1", list, strError)) << strError;
  EXPECT_THAT(list, ElementsAre("127.0.0.1"));
  EXPECT_FALSE(ResolveHost("name.invalid", list, strError));
  EXPECT_THAT(strError, HasSubstr("name not resolved: "));
}

TEST(Wakeup, Signal_WakesASleeper_AndOnlyASleeper) {
  CWakeup wakeup;
  EXPECT_FALSE(Readable(wakeup.Descriptor(), 0));
  wakeup.Signal();  // before the first wait
  EXPECT_TRUE(Readable(wakeup.Descriptor(), 0));
  EXPECT_FALSE(wakeup.BeginWait());
  wakeup.EndWait(true);
  EXPECT_FALSE(Readable(wakeup.Descriptor(), 0));
  wakeup.Signal();  // it is awake and has not looked yet
  wakeup.Signal();
  EXPECT_FALSE(Readable(wakeup.Descriptor(), 0));
  EXPECT_FALSE(wakeup.BeginWait());
  wakeup.EndWait(false);
  EXPECT_TRUE(wakeup.BeginWait());
  wakeup.Signal();
  wakeup.Signal();
  EXPECT_TRUE(Readable(wakeup.Descriptor(), 0));
  wakeup.EndWait(true);
  EXPECT_FALSE(Readable(wakeup.Descriptor(), 0));
  EXPECT_TRUE(wakeup.BeginWait());
}

TEST(Wakeup, NoSignalIsLost_WhateverTheMoment) {
  CWakeup wakeup;
  std::atomic<int> iWork{0};
  constexpr int kRounds = 20000;
  std::thread signaller([&] {
    for (int i = 0; i < kRounds; ++i) {
      ++iWork;
      wakeup.Signal();
    }
  });
  int iDone = 0;
  bool bInTime = true;
  while (iDone < kRounds && bInTime) {
    iDone = iWork.load();
    const bool bWait = wakeup.BeginWait();
    const bool bReadable = Readable(wakeup.Descriptor(), bWait && iDone < kRounds ? 10000 : 0);
    // Whoever waits is woken: the last round's signal comes after its work.
    bInTime = bReadable || !bWait || iDone >= kRounds;
    wakeup.EndWait(bReadable);
  }
  signaller.join();
  EXPECT_TRUE(bInTime);
  EXPECT_EQ(iDone, kRounds);
}

TEST(CloudThread, Start_NamesTheThread_AndBlocksSignalsThere) {
  char szName[16] = "";
  sigset_t setBlocked;
  sigemptyset(&setBlocked);
  CCloudThread thread;
  ASSERT_EQ(thread.Start("zxcloudtest",
                         [&] {
                           pthread_getname_np(pthread_self(), szName, sizeof(szName));
                           pthread_sigmask(SIG_SETMASK, nullptr, &setBlocked);
                         }),
            0);
  thread.Join();
  thread.Join();
  EXPECT_STREQ(szName, "zxcloudtest");
  EXPECT_EQ(sigismember(&setBlocked, SIGTERM), 1);
  sigset_t setHere;
  pthread_sigmask(SIG_SETMASK, nullptr, &setHere);
  EXPECT_EQ(sigismember(&setHere, SIGTERM), 0);
}

TEST(HttpClient, UrlEscape_LeavesOnlyUnreservedCharacters) {
  EXPECT_EQ(UrlEscape("aZ09-._~"), "aZ09-._~");
  EXPECT_EQ(UrlEscape(std::string_view("a b&=%/\0\xff", 9)), "a%20b%26%3D%25%2F%00%FF");
}

TEST(HttpClient, Do_RefusesPlainTextToOthers_WithoutAConnection) {
  CHttpClient http({{}, true, ""});
  _HttpRequest request;
  request.address = {"10.0.0.1", 80, true};
  const _HttpAnswer answer = http.Do(request);
  EXPECT_EQ(answer.eError, ENetError::Tls);
  EXPECT_EQ(answer.Why(), "plain text is not permitted to this address");
}

TEST(HttpClient, Abort_IsForGood) {
  CHttpClient http({{}, true, ""});
  http.Abort();
  EXPECT_EQ(http.Do({}).eError, ENetError::Aborted);
}
