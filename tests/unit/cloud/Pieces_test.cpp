// The small parts: acknowledgement table, lookups, wake-up, threads, names of refusals, escaping.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "platform/cloud/AckTable.h"
#include "platform/cloud/CloudThread.h"
#include "platform/cloud/HttpClient.h"
#include "platform/cloud/Resolver.h"
#include "platform/cloud/TlsPolicy.h"
#include "support/CloudCerts.h"
#include "support/TempHome.h"
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

TEST(Wakeup, Signal_IsSeenUntilCleared) {
  CWakeup wakeup;
  EXPECT_FALSE(Readable(wakeup.Descriptor(), 0));
  wakeup.Signal();
  wakeup.Signal();
  EXPECT_TRUE(Readable(wakeup.Descriptor(), 0));
  wakeup.Clear();
  EXPECT_FALSE(Readable(wakeup.Descriptor(), 0));
  wakeup.Signal();
  EXPECT_TRUE(Readable(wakeup.Descriptor(), 0));
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

TEST(TlsPolicy, Reason_NamesEachRefusal) {
  EXPECT_THAT(TlsReason(X509_V_ERR_CERT_HAS_EXPIRED, "h", ""),
              HasSubstr("certificate expired (this machine's"));
  EXPECT_THAT(TlsReason(X509_V_ERR_CERT_NOT_YET_VALID, "h", ""), HasSubstr("certificate not yet valid"));
  EXPECT_EQ(TlsReason(X509_V_ERR_HOSTNAME_MISMATCH, "h", ""), "certificate is for another host than h");
  EXPECT_EQ(TlsReason(X509_V_ERR_IP_ADDRESS_MISMATCH, "h", ""), "certificate is for another host than h");
  EXPECT_EQ(TlsReason(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, "h", ""), "certificate is from an unknown CA");
  EXPECT_EQ(TlsReason(X509_V_ERR_APPLICATION_VERIFICATION, "h", ""),
            "no pin matches the server's public key");
  EXPECT_EQ(TlsReason(X509_V_ERR_CERT_REVOKED, "h", ""), "certificate refused: certificate revoked");
  EXPECT_EQ(TlsReason(0, "h", "... tlsv1 alert protocol version"), "the far side speaks no TLS 1.2 or newer");
  EXPECT_EQ(TlsReason(0, "h", "wrong version number"), "the far side does not speak TLS");
  EXPECT_THAT(TlsReason(0, "h", "tlsv13 alert certificate required"),
              HasSubstr("refuses this client's certificate"));
  EXPECT_EQ(TlsReason(0, "h", "anything else"), "anything else");
  EXPECT_EQ(TlsReason(0, "h", ""), "TLS failed");
}

TEST(TlsPolicy, CheckKeyFile_WantsAPrivateFile) {
  CTempHome home;
  std::string strError;
  EXPECT_FALSE(TlsCheckKeyFile(home.Path("none").Str(), strError));
  EXPECT_THAT(strError, HasSubstr("No such file"));
  home.WriteFile("key", "x", 0600);
  EXPECT_TRUE(TlsCheckKeyFile(home.Path("key").Str(), strError));
  home.WriteFile("open", "x", 0604);
  EXPECT_FALSE(TlsCheckKeyFile(home.Path("open").Str(), strError));
  EXPECT_FALSE(TlsCheckKeyFile(home.Root().Str(), strError));
}

TEST(TlsPolicy, NewContext_NamesTheFileItCannotUse) {
  CTempHome home;
  CTestCa ca(home.Root().Str(), "test");
  const _CertFiles own = ca.Issue("own", {"own"});
  const _CertFiles other = ca.Issue("other", {"other"});
  _TlsVerdict verdict;
  std::string strError;
  _TlsSettings settings;
  settings.strCaFile = ca.File();
  settings.strCertFile = own.strCert;
  settings.strKeyFile = own.strKey;
  EXPECT_NE(TlsNewContext(settings, "host", verdict, strError), nullptr) << strError;
  EXPECT_EQ(verdict.strSni, "host");
  EXPECT_NE(TlsNewContext(settings, "127.0.0.1", verdict, strError), nullptr) << strError;
  EXPECT_EQ(verdict.strSni, "");  // literals are no server names
  settings.strKeyFile = other.strKey;
  EXPECT_EQ(TlsNewContext(settings, "host", verdict, strError), nullptr);
  EXPECT_THAT(strError, HasSubstr("key_file " + other.strKey));
  settings.strCertFile = home.Path("none").Str();
  EXPECT_EQ(TlsNewContext(settings, "host", verdict, strError), nullptr);
  EXPECT_THAT(strError, HasSubstr("cert_file "));
  settings.strCaFile = home.Path("none").Str();
  EXPECT_EQ(TlsNewContext(settings, "host", verdict, strError), nullptr);
  EXPECT_THAT(strError, HasSubstr("ca_file "));
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
