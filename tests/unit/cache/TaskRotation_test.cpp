#include "CacheFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class TaskRotation : public CCacheTest {
 protected:
  // A task copy that was written at that time.
  void OldTask(const std::string& strName, int64_t i64Seconds) {
    m_home.WriteFile("data/policy/agentcache/Scan_One/task/" + strName, "{}");
    SetFileTime(Path("data/policy/agentcache/Scan_One/task/" + strName), i64Seconds);
  }
};

TEST_F(TaskRotation, DeletesTheOldest_WhenTheCountIsReached) {
  Load(Conf("Scan", "One", "cmd", 3));
  OldTask("cmd_b.json", 2000);
  OldTask("cmd_a.json", 1000);
  OldTask("cmd_c.json", 3000);
  EXPECT_EQ(Save("new", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_b.json", "cmd_c.json", "cmd_new.json"));
}

TEST_F(TaskRotation, DeletesNothing_BelowTheCount) {
  Load(Conf("Scan", "One", "cmd", 3));
  OldTask("cmd_a.json", 1000);
  OldTask("cmd_b.json", 2000);
  EXPECT_EQ(Save("new", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_a.json", "cmd_b.json", "cmd_new.json"));
}

TEST_F(TaskRotation, DeletesOne_WhateverTheExcess) {
  Load(Conf("Scan", "One", "cmd", 2));
  for (int i = 1; i <= 5; ++i)
    OldTask("cmd_" + std::to_string(i) + ".json", i * 1000);
  EXPECT_EQ(Save("new", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_2.json", "cmd_3.json", "cmd_4.json", "cmd_5.json", "cmd_new.json"));
}

TEST_F(TaskRotation, CountsTheCopiesOfAllCommandsOfTheCombo) {
  Load(Conf("Scan", "One", "cmd,other", 2));
  OldTask("other_1.json", 1000);
  OldTask("other_2.json", 2000);
  EXPECT_EQ(Save("1", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_1.json", "other_2.json"));
}

TEST_F(TaskRotation, KeepsTheNewCopyOnly_WhenTheCountIsZero) {
  Load(Conf("Scan", "One", "cmd", 0));
  EXPECT_EQ(Save("1", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_1.json"));
  OldTask("cmd_1.json", 1000);
  EXPECT_EQ(Save("2", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_2.json"));
}

TEST_F(TaskRotation, StillRotates_WhenTheCopyIsOverwritten) {
  Load(Conf("Scan", "One", "cmd", 3));
  OldTask("cmd_a.json", 1000);
  OldTask("cmd_b.json", 2000);
  OldTask("cmd_c.json", 3000);
  EXPECT_EQ(Save("c", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_b.json", "cmd_c.json"));
  EXPECT_EQ(Verdict("Scan_One/task/cmd_c.json"), "false");
}

TEST_F(TaskRotation, SaveTaskCache_AnswersWhatTheWriteAnswers) {
  Load("");
  EXPECT_EQ(m_cache.SaveTaskCache("1", "Scan", "One", "cmd", "text", 3), 1);
  EXPECT_EQ(Text("Scan_One/task/cmd_1.json"), "text");
  m_home.Remove("data");
  m_home.WriteFile("data", "");
  EXPECT_EQ(m_cache.SaveTaskCache("1", "Scan", "One", "cmd", "text", 3), 0);
}

TEST_F(TaskRotation, LeavesDirectoriesAndLinksAlone) {
  Load(Conf("Scan", "One", "cmd", 1));
  m_home.MakeDir("data/policy/agentcache/Scan_One/task/dir");
  m_home.WriteFile("precious", "keep");
  std::filesystem::create_symlink(Path("precious"), Path("data/policy/agentcache/Scan_One/task/link.json"));
  EXPECT_EQ(Save("1", "cmd"), 1);
  EXPECT_THAT(Tasks(), ElementsAre("cmd_1.json", "link.json"));
  EXPECT_TRUE(m_home.Exists("data/policy/agentcache/Scan_One/task/dir"));
  EXPECT_EQ(m_home.ReadFile("precious"), "keep");
}

// --- Lists.

TEST_F(TaskRotation, List_TakesEverythingButDirectoriesAndLinks) {
  m_home.WriteFile("d/a.json", "");
  m_home.WriteFile("d/.hidden", "");
  m_home.WriteFile("d/noending", "");
  m_home.MakeDir("d/sub");
  m_home.WriteFile("d/sub/inner.json", "");
  ASSERT_EQ(mkfifo(Path("d/fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink(Path("d/a.json"), Path("d/link"));
  CPStrList list;
  EXPECT_EQ(CAgentCache::GetCacheFileList(Path("d").c_str(), list), 1);
  EXPECT_THAT(std::vector<CPString>(list.begin(), list.end()),
              UnorderedElementsAre(Path("d/a.json"), Path("d/.hidden"), Path("d/noending"), Path("d/fifo")));
}

TEST_F(TaskRotation, List_PutsASlashBehindThePath) {
  m_home.WriteFile("d/a.json", "");
  CPStrList list;
  EXPECT_EQ(CAgentCache::GetCacheFileList(Path("d/").c_str(), list), 1);
  ASSERT_EQ(list.GetCount(), 1u);
  EXPECT_EQ(list.GetAt(0), Path("d//a.json"));
}

TEST_F(TaskRotation, List_AnswersZero_WithoutADirectory) {
  m_home.WriteFile("file", "");
  CPStrList list;
  EXPECT_EQ(CAgentCache::GetCacheFileList(nullptr, list), 0);
  EXPECT_EQ(CAgentCache::GetCacheFileList("", list), 0);
  EXPECT_EQ(CAgentCache::GetCacheFileList(Path("missing").c_str(), list), 0);
  EXPECT_EQ(CAgentCache::GetCacheFileList(Path("file").c_str(), list), 0);
  EXPECT_TRUE(list.IsEmpty());
  m_home.MakeDir("empty");
  EXPECT_EQ(CAgentCache::GetCacheFileList(Path("empty").c_str(), list), 1);
  EXPECT_TRUE(list.IsEmpty());
}

// Names stand for files written at that second; "-" for one that cannot be read.
TEST_F(TaskRotation, Early_PicksTheOldest) {
  struct _Case {
    const char* pszName;
    std::vector<int64_t> times;  // -1: missing
    size_t uExpect;
  };
  const int64_t i64Wrapped = (int64_t{1} << 32) + 5;
  const _Case cases[] = {
      {"one", {7}, 0},
      {"second", {9, 7, 8}, 1},
      {"ties keep the earlier", {9, 7, 7}, 1},
      {"unreadable counts as time 0", {9, -1}, 1},
      {"a kept time of 0 counts as none", {9, -1, 12}, 2},
      {"first unreadable", {-1, 12, 13}, 1},
      {"only unreadable", {-1}, 0},
      {"the epoch itself counts as none", {0, 12}, 1},
      {"32 bits", {6, i64Wrapped}, 1},
  };
  for (const _Case& testCase : cases) {
    m_home.Remove("t");
    CPStrList list;
    std::vector<CPString> names;
    bool bClamped = false;
    for (size_t u = 0; u < testCase.times.size(); ++u) {
      const std::string strName = "t/" + std::to_string(u);
      if (testCase.times[u] >= 0) {
        m_home.WriteFile(strName, "");
        SetFileTime(Path(strName), testCase.times[u]);
        bClamped = bClamped || FileTime(Path(strName)) != testCase.times[u];
      }
      list.AddTail(Path(strName));
      names.push_back(Path(strName));
    }
    if (bClamped)
      continue;  // a file system without such times
    CPString strName;
    EXPECT_EQ(CAgentCache::GetEarlyFileName(list, strName), 1) << testCase.pszName;
    EXPECT_EQ(strName.Str(), names[testCase.uExpect].Str()) << testCase.pszName;
  }
}

TEST_F(TaskRotation, Early_LeavesTheNameEmpty_WithoutFiles) {
  CPString strName;
  EXPECT_EQ(CAgentCache::GetEarlyFileName(CPStrList(), strName), 1);
  EXPECT_TRUE(strName.IsEmpty());
}
