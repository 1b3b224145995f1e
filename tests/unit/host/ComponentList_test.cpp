#include "ComponentList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "ManifestWatch.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

bool FakeUser(const CPString& strUser, uid_t& uid, gid_t& gid) {
  if (strUser != "alice" && strUser != "bob")
    return false;
  uid = gid = strUser == "alice" ? 4711 : 4712;
  return true;
}

std::string ManifestOf(const std::string& strGuid, const std::string& strUser) {
  return R"({"plugins":[{"id":")" + strGuid + R"(","product":"p","combo":"c"}],"bus":{"user":")" + strUser +
         R"(","send":[20001]}})";
}

const std::string kA = "AAAAAAAA-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
const std::string kB = "BBBBBBBB-2D4F-4A6B-8C9D-0E1F2A3B4C5D";

class ComponentList : public testing::Test {
 protected:
  ComponentList() {
    m_rules.pfnUser = &FakeUser;
    m_rules.bTrustedOnly = geteuid() == 0;  // what the test writes is its own user's
    m_home.MakeDir("etc/coms/client");
  }

  void Install(const std::string& strName, const std::string& strText, mode_t mode = 0644) {
    m_home.WriteFile("etc/coms/client/" + strName + "/config.json", strText, mode);
  }
  // "" for an accepted one, "absent" for none.
  std::string RefusedOf(const std::string& strName) {
    const _ComponentList list = ReadComponents(m_home.Root(), m_rules);
    for (const _ComponentEntry& entry : list.entries) {
      if (entry.strName == strName)
        return entry.strRefused.Str();
    }
    return "absent";
  }

  CTempHome m_home;
  _ComponentRules m_rules;
};

TEST_F(ComponentList, Accepted_KnowsItsUser) {
  Install("a", ManifestOf(kA, "alice"));
  const _ComponentList list = ReadComponents(m_home.Root(), m_rules);
  ASSERT_EQ(list.entries.size(), 1u);
  EXPECT_EQ(list.entries[0].strRefused, "");
  EXPECT_EQ(list.entries[0].uid, 4711u);
  EXPECT_EQ(list.strError, "");
}

TEST_F(ComponentList, HostThatIsNotRoot_TakesEveryManifestForItsOwnUser) {
  m_rules.bTrustedOnly = false;
  m_rules.bOneUser = true;
  m_rules.uidHost = 4713;
  Install("a", ManifestOf(kA, "not_there"), 0666);
  const _ComponentList list = ReadComponents(m_home.Root(), m_rules);
  ASSERT_EQ(list.entries.size(), 1u);
  EXPECT_EQ(list.entries[0].strRefused, "");
  EXPECT_EQ(list.entries[0].uid, 4713u);
}

TEST_F(ComponentList, NothingInstalled_IsNoError) {
  EXPECT_EQ(ReadComponents(m_home.Root(), m_rules).strError, "");
  m_home.Remove("etc");
  EXPECT_EQ(ReadComponents(m_home.Root(), m_rules).strError, "");
}

TEST_F(ComponentList, HostileManifests_NeverHideTheOthers) {
  Install("bad-json", "{");
  Install("bad-user", ManifestOf(kA, R"(x\"/><allow own=\"*)"));
  Install("huge", std::string(kManifestMaxBytes + 1, ' '));
  Install("nobody-there", ManifestOf("CCCCCCCC-2D4F-4A6B-8C9D-0E1F2A3B4C5D", "mallory"));
  m_home.MakeDir("etc/coms/client/empty");
  m_home.MakeDir("etc/coms/client/directory/config.json");
  m_home.MakeDir("etc/coms/client/pipe");
  ASSERT_EQ(mkfifo(m_home.Path("etc/coms/client/pipe/config.json").c_str(), 0644), 0);
  m_home.MakeDir("etc/coms/client/link");
  ASSERT_EQ(symlink("../good/config.json", m_home.Path("etc/coms/client/link/config.json").c_str()), 0);
  ASSERT_EQ(symlink("good", m_home.Path("etc/coms/client/linked-directory").c_str()), 0);
  ASSERT_EQ(symlink("loop", m_home.Path("etc/coms/client/loop").c_str()), 0);
  m_home.WriteFile("etc/coms/client/file", "in the way");
  m_home.MakeDir("etc/coms/client/odd\n\"name");
  m_home.WriteFile("etc/coms/client/odd\n\"name/config.json", "{");
  Install("good", ManifestOf(kB, "bob"));

  EXPECT_EQ(RefusedOf("good"), "");
  EXPECT_THAT(RefusedOf("bad-json"), HasSubstr("not a JSON object"));
  EXPECT_THAT(RefusedOf("bad-user"), HasSubstr("no user name"));
  EXPECT_THAT(RefusedOf("huge"), HasSubstr("too long"));
  EXPECT_THAT(RefusedOf("nobody-there"), HasSubstr("user mallory does not exist"));
  EXPECT_EQ(RefusedOf("empty"), "absent");
  EXPECT_EQ(RefusedOf("file"), "absent");
  EXPECT_THAT(RefusedOf("directory"), HasSubstr("no file"));
  EXPECT_THAT(RefusedOf("pipe"), HasSubstr("no file"));
  EXPECT_THAT(RefusedOf("link"), HasSubstr("is a link"));
  EXPECT_THAT(RefusedOf("linked-directory"), HasSubstr("is a link"));
  EXPECT_THAT(RefusedOf("loop"), HasSubstr("is a link"));
  EXPECT_THAT(RefusedOf("odd??name"), HasSubstr("not a JSON object"));
}

TEST_F(ComponentList, OneGuidTwice_IsNobodys) {
  Install("first", ManifestOf(kA, "alice"));
  Install("second", ManifestOf(kA, "bob"));
  Install("third", ManifestOf(kB, "bob"));
  EXPECT_THAT(RefusedOf("first"), HasSubstr("is claimed by second as well"));
  EXPECT_THAT(RefusedOf("second"), HasSubstr("is claimed by first as well"));
  EXPECT_EQ(RefusedOf("third"), "");
}

TEST_F(ComponentList, GuidOfAPlugin_CannotBeClaimed) {
  m_rules.inProcess = {GUID(kA.c_str())};
  Install("a", ManifestOf(kA, "alice"));
  Install("b", ManifestOf(kB, "bob"));
  EXPECT_THAT(RefusedOf("a"), HasSubstr("served by a plug-in"));
  EXPECT_EQ(RefusedOf("b"), "");
}

TEST_F(ComponentList, WhatOthersCanWrite_IsNotTrusted_ByRoot) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root";
  Install("good", ManifestOf(kB, "bob"));
  Install("writable", ManifestOf(kA, "alice"), 0666);
  EXPECT_THAT(RefusedOf("writable"), HasSubstr("can be written by others"));
  Install("writable", ManifestOf(kA, "alice"), 0664);
  EXPECT_THAT(RefusedOf("writable"), HasSubstr("can be written by others"));
  Install("owned", ManifestOf(kA, "alice"));
  ASSERT_EQ(chown(m_home.Path("etc/coms/client/owned/config.json").c_str(), 65534, 65534), 0);
  EXPECT_THAT(RefusedOf("owned"), HasSubstr("does not belong to root"));
  Install("open", ManifestOf(kA, "alice"));
  ASSERT_EQ(chmod(m_home.Path("etc/coms/client/open").c_str(), 0777), 0);
  EXPECT_THAT(RefusedOf("open"), HasSubstr("can be written by others"));
  EXPECT_EQ(RefusedOf("good"), "");
  ASSERT_EQ(chmod(m_home.Path("etc/coms/client").c_str(), 0777), 0);
  const _ComponentList list = ReadComponents(m_home.Root(), m_rules);
  EXPECT_THAT(list.entries, IsEmpty());
  EXPECT_THAT(list.strError.Str(), HasSubstr("can be written by others"));
}

TEST_F(ComponentList, TooMany_AreCut_AndSaid) {
  m_rules.uMaxEntries = 2;
  for (const char* psz : {"a", "b", "c"})
    Install(psz, "{}");
  EXPECT_EQ(RefusedOf("b"), "no process of its own");
  EXPECT_EQ(RefusedOf("c"), "absent");
  EXPECT_THAT(ReadComponents(m_home.Root(), m_rules).strError.Str(), HasSubstr("too many"));
}

class ManifestWatch : public ComponentList {
 protected:
  ManifestWatch() : m_watch(m_home.Root()) { m_watch.Arm(); }
  bool Seen() {
    return EventuallyTrue([&] { return m_watch.TakeEvents(); });
  }
  // After what counts nothing must be left, so that the next one is seen by itself.
  void Settle() {
    m_watch.Arm();
    while (m_watch.TakeEvents()) {
    }
  }
  CManifestWatch m_watch;
};

TEST_F(ManifestWatch, SeesEveryKindOfChange) {
  EXPECT_TRUE(m_watch.IsComplete());
  EXPECT_FALSE(m_watch.TakeEvents());
  Install("a", "{");
  EXPECT_TRUE(Seen());
  Settle();
  Install("a", "{}");
  EXPECT_TRUE(Seen());
  Settle();
  ASSERT_EQ(chmod(m_home.Path("etc/coms/client/a/config.json").c_str(), 0600), 0);
  EXPECT_TRUE(Seen());
  Settle();
  m_home.Remove("etc/coms/client/a");
  EXPECT_TRUE(Seen());
  Settle();
  m_home.Remove("etc/coms");
  EXPECT_TRUE(Seen());
  Settle();
  m_home.MakeDir("etc/coms");
  EXPECT_TRUE(Seen());
  Settle();
  m_home.MakeDir("etc/coms/client");
  EXPECT_TRUE(Seen());
  Settle();
  Install("b", "{}");
  EXPECT_TRUE(Seen());
}

TEST_F(ManifestWatch, OtherFilesOfEtc_AreNotItsBusiness) {
  m_home.WriteFile("etc/zxlog.json", "{}");
  m_home.WriteFile("etc/coms/state", "{}");
  EXPECT_FALSE(m_watch.TakeEvents());
}

}  // namespace
