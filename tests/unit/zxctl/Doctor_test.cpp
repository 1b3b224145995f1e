// Each problem of a home is named with its cure; a home in order has none; hostile files disturb nobody.
#include "zxctl/local/Doctor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/CloudCerts.h"
#include "support/TempHome.h"
#include "zxctl/Answers.h"
#include "zxctl/local/Home.h"

namespace {

using namespace zxctl;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

auto IsProblem(const std::string& strWhat) {
  return AllOf(Field(&_Finding::eKind, EFinding::Problem), Field(&_Finding::strWhat, HasSubstr(strWhat)),
               Field(&_Finding::strCure, Not(IsEmpty())));
}
const auto kNoProblem = Each(Field(&_Finding::eKind, Not(EFinding::Problem)));

class Doctor : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* pszName :
         {"libzxagent.so", "lib/libzxplatform.so", "lib/libzxbus.so", "lib/libzxcloud.so", "lib/libzxmid.so",
          "bin/zxhost", "lib/modules/libconfigproxy.so"})
      m_home.WriteFile(pszName, "x");
    m_home.WriteFile("etc/version.xml", "<Config/>");
    m_home.WriteFile("etc/zxhost.json", "{}");
    m_home.MakeDir("log");
    WriteCloud("");
  }
  void WriteCloud(const std::string& strTrust) {
    m_home.WriteFile("etc/zxagent/zxagent.json",
                     (R"({"tconf":{"tconf_url":"127.0.0.1:1"},"zxcloudconf":{)" + strTrust + "}}").c_str());
  }
  std::string Root() const { return m_home.Root().Str(); }
  template <class F>
  TFindings Look(F fnCheck) {
    TFindings findings;
    fnCheck(findings);
    return findings;
  }
  TFindings Cloud(bool bOffline, int64_t i64Later = 0) {
    return Look([&](TFindings& f) { CheckCloud(Root(), bOffline, NowMs() / 1000 + i64Later, f); });
  }

  CTempHome m_home;
};

TEST_F(Doctor, HomeInOrder_NoProblem) {
  EXPECT_THAT(Look([&](TFindings& f) { CheckTree(Root(), f); }), kNoProblem);
  EXPECT_THAT(Look([&](TFindings& f) { CheckModes(Root(), f); }), kNoProblem);
  EXPECT_THAT(Look([&](TFindings& f) { CheckDocuments(Root(), f); }), kNoProblem);
  EXPECT_THAT(Look([&](TFindings& f) { CheckSpace(Root(), f); }), Not(IsEmpty()));
}

TEST_F(Doctor, MissingLibrary) {
  m_home.Remove("lib/libzxbus.so");
  EXPECT_THAT(Look([&](TFindings& f) { CheckTree(Root(), f); }), Contains(IsProblem("libzxbus.so")));
}

TEST_F(Doctor, MissingLogDirectory) {
  m_home.Remove("log");
  EXPECT_THAT(Look([&](TFindings& f) { CheckTree(Root(), f); }), Contains(IsProblem("log")));
}

TEST_F(Doctor, OthersMayWrite) {
  ASSERT_EQ(chmod(m_home.Path("etc/zxhost.json").c_str(), 0666), 0);
  EXPECT_THAT(Look([&](TFindings& f) { CheckModes(Root(), f); }), Contains(IsProblem("zxhost.json")));
}

TEST_F(Doctor, OthersMayReadTheSpool) {
  m_home.WriteFile("etc/zxagent/zxcloud.db", "x", 0644);
  EXPECT_THAT(Look([&](TFindings& f) { CheckModes(Root(), f); }), Contains(IsProblem("zxcloud.db")));
}

TEST_F(Doctor, BrokenDocuments) {
  m_home.WriteFile("etc/version.xml", "<Config>");
  m_home.WriteFile("etc/zxhost.json", "{");
  m_home.WriteFile("etc/zxagent/inner/lost.json", "");
  m_home.WriteFile("etc/coms/client/one/config.json", "[1");
  m_home.MakeDir("etc/coms/client/none");
  const TFindings findings = Look([&](TFindings& f) { CheckDocuments(Root(), f); });
  EXPECT_THAT(findings, Contains(IsProblem("version.xml: it is not XML")));
  EXPECT_THAT(findings, Contains(IsProblem("zxhost.json: it is not JSON")));
  EXPECT_THAT(findings, Contains(IsProblem("lost.json: it is empty")));
  EXPECT_THAT(findings, Contains(IsProblem("one/config.json")));
  EXPECT_THAT(findings, Contains(IsProblem("none/config.json is missing")));
}

TEST_F(Doctor, HostileFiles_AreFindings) {
  ASSERT_EQ(symlink("config.json", m_home.Path("etc/zxagent/inner.json").c_str()), 0);
  m_home.MakeDir("etc/coms/client/loop");
  ASSERT_EQ(symlink("config.json", m_home.Path("etc/coms/client/loop/config.json").c_str()), 0);
  m_home.MakeDir("etc/coms/client/fifo");
  ASSERT_EQ(mkfifo(m_home.Path("etc/coms/client/fifo/config.json").c_str(), 0600), 0);
  m_home.WriteFile("etc/coms/client/binary/config.json", CPString(std::string("\0\xff\x1b[2J", 6)));
  m_home.WriteFile("etc/coms/client/large/config.json", "");
  ASSERT_EQ(truncate(m_home.Path("etc/coms/client/large/config.json").c_str(), off_t{1} << 40), 0);
  const TFindings findings = Look([&](TFindings& f) { CheckDocuments(Root(), f); });
  for (const char* pszName : {"loop", "fifo", "binary", "large"})
    EXPECT_THAT(findings, Contains(IsProblem(pszName)));
}

TEST_F(Doctor, ClockBeforeTheInstallation) {
  EXPECT_THAT(Look([&](TFindings& f) { CheckClock(Root(), 86400, f); }), Contains(IsProblem("clock")));
  EXPECT_THAT(Look([&](TFindings& f) { CheckClock(Root(), NowMs() / 1000, f); }), kNoProblem);
}

TEST_F(Doctor, Certificates) {
  CTestCa ca(m_home.Path("").Str(), "ca");
  const _CertFiles files = ca.Issue("client", {"client"});
  const std::string strTrust = R"("ca_file":")" + ca.File() + R"(","cert_file":")" + files.strCert +
                               R"(","key_file":")" + files.strKey + "\"";
  WriteCloud(strTrust);
  EXPECT_THAT(Cloud(true), kNoProblem);
  EXPECT_THAT(Cloud(true), Contains(Field(&_Finding::eKind, EFinding::Note))) << "one day is left";
  EXPECT_THAT(Cloud(true, 40L * 86400), Contains(IsProblem("expired")));
  EXPECT_THAT(Cloud(true, -40L * 86400), Contains(IsProblem("not valid before")));
  ASSERT_EQ(chmod(files.strKey.c_str(), 0644), 0);
  EXPECT_THAT(Cloud(true), Contains(IsProblem(files.strKey)));
}

TEST_F(Doctor, KeyOfAnotherCertificate) {
  CTestCa ca(m_home.Path("").Str(), "ca");
  const _CertFiles one = ca.Issue("one", {"one"}), two = ca.Issue("two", {"two"});
  WriteCloud(R"("ca_file":")" + ca.File() + R"(","cert_file":")" + one.strCert + R"(","key_file":")" +
             two.strKey + "\"");
  EXPECT_THAT(Cloud(true), Contains(Field(&_Finding::eKind, EFinding::Problem)));
}

TEST_F(Doctor, CaFileThatIsNone) {
  m_home.WriteFile("ca.pem", "nothing");
  WriteCloud(R"("ca_file":"ca.pem")");
  EXPECT_THAT(Cloud(true), Contains(IsProblem("holds no PEM certificate")));
}

TEST_F(Doctor, AddressThatDoesNotAnswer) {
  EXPECT_THAT(Cloud(true), kNoProblem) << "offline";
  EXPECT_THAT(Cloud(false), Contains(IsProblem("127.0.0.1:1")));
}

TEST_F(Doctor, NoAddressAtAll) {
  m_home.WriteFile("etc/zxagent/zxagent.json", "{}");
  EXPECT_THAT(Cloud(true), Contains(IsProblem("zxagent.json")));
}

TEST_F(Doctor, NoHost) {
  EXPECT_THAT(Look([&](TFindings& f) { CheckHost(Root(), f); }), Contains(IsProblem("no host answers")));
}

TEST_F(Doctor, Home_IsFoundOrNot) {
  std::string strHome, strError;
  EXPECT_TRUE(FindHome(Root(), strHome, strError));
  EXPECT_EQ(strHome, Root());
  EXPECT_FALSE(FindHome(m_home.Path("log").Str(), strHome, strError));
  EXPECT_THAT(strError, HasSubstr("--home"));
}

TEST_F(Doctor, BusAddress_AsTheHostHasIt) {
  EXPECT_EQ(BusAddressOf(Root()), "unix:path=" + Root() + "run/bus");
  m_home.WriteFile("etc/zxhost.json", R"({"bus":{"run_dir":"/run/zx"}})");
  EXPECT_EQ(BusAddressOf(Root()), "unix:path=/run/zx/bus");
  m_home.WriteFile("etc/zxhost.json", R"({"bus":{"address":"unix:path=/x"}})");
  EXPECT_EQ(BusAddressOf(Root()), "unix:path=/x");
  m_home.WriteFile("etc/zxhost.json", "{");
  EXPECT_EQ(BusAddressOf(Root()), "unix:path=" + Root() + "run/bus");
}

}  // namespace
