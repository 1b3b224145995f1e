// Following a file: rotation by rename and by truncation, restarts, and what a crash must not change.
#include "zxlogcache/FileInput.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "support/LogCapture.h"
#include "support/TempHome.h"

using namespace zxlogcache;

namespace {

using Texts = std::vector<std::string>;
constexpr uint64_t kMuch = 1u << 30;

class FileInput : public testing::Test {
 protected:
  FileInput() { Start(); }

  void Start(bool bFromEnd = false) {
    _FileSettings settings;
    settings.strPath = m_home.Path("a.log").Str();
    settings.bFromEnd = bFromEnd;
    m_pInput = std::make_unique<CFileInput>(settings, 100, nullptr);
    m_pInput->Resume(m_marks);
  }
  void Write(const char* pszName, const std::string& strText) {
    std::ofstream(m_home.Path(pszName).Str(), std::ios::app) << strText;
  }
  void Rename(const char* pszFrom, const char* pszTo) {
    ASSERT_EQ(rename(m_home.Path(pszFrom).c_str(), m_home.Path(pszTo).c_str()), 0);
  }
  // What is new; stored, as a commit does it, unless told otherwise.
  Texts Poll(bool bCommit = true, uint64_t u64Budget = kMuch) {
    CChunks chunks(1000, false);
    while (m_pInput->Poll(chunks, u64Budget, m_u64NowMs) && u64Budget == kMuch) {
    }
    Texts list;
    for (const auto& chunk : chunks.List()) {
      std::vector<std::string_view> records;
      EXPECT_TRUE(UnpackRecords(chunk.strData, records));
      list.insert(list.end(), records.begin(), records.end());
    }
    if (!bCommit)
      return list;
    for (const _FileMark& changed : m_pInput->Changed()) {
      Forget(changed);
      m_marks.push_back(changed);
    }
    for (const _FileMark& ended : m_pInput->Ended())
      Forget(ended);
    m_pInput->Committed();
    return list;
  }
  void Forget(const _FileMark& mark) {
    std::erase_if(m_marks, [&](const _FileMark& m) { return m.u64Inode == mark.u64Inode; });
  }

  CTempHome m_home;
  std::unique_ptr<CFileInput> m_pInput;
  std::vector<_FileMark> m_marks;  // the store
  uint64_t m_u64NowMs = 1000;
};

TEST_F(FileInput, CompleteLines_AreTaken_AsTheyCome) {
  EXPECT_EQ(Poll(), Texts{});
  Write("a.log", "one\ntw");
  EXPECT_EQ(Poll(), Texts{"one"});
  EXPECT_EQ(Poll(), Texts{});
  Write("a.log", "o\nthree\n");
  EXPECT_EQ(Poll(), (Texts{"two", "three"}));
}

TEST_F(FileInput, Restart_GoesOnWhereItStopped) {
  Write("a.log", "one\ntwo\nhal");
  EXPECT_EQ(Poll(), (Texts{"one", "two"}));
  Write("a.log", "f\n");
  Start();
  EXPECT_EQ(Poll(), Texts{"half"});
}

TEST_F(FileInput, CrashBeforeTheCommit_TakesTheSameLinesAgain) {
  Write("a.log", "one\n");
  EXPECT_EQ(Poll(), Texts{"one"});
  Write("a.log", "two\n");
  EXPECT_EQ(Poll(false), Texts{"two"});
  Start();
  EXPECT_EQ(Poll(), Texts{"two"});
}

TEST_F(FileInput, Renamed_IsReadToItsEnd_ThenTheNewOne) {
  Write("a.log", "1\n");
  EXPECT_EQ(Poll(), Texts{"1"});
  Write("a.log", "2\n");
  Rename("a.log", "a.log.1");
  Write("a.log", "3\n");
  EXPECT_EQ(Poll(), (Texts{"2", "3"}));
  Write("a.log.1", "late\n");
  EXPECT_EQ(Poll(), Texts{"late"});
  Write("a.log.1", "unended");
  EXPECT_EQ(Poll(), Texts{});
  m_u64NowMs += 5000;
  EXPECT_EQ(Poll(), Texts{"unended"}) << "nobody continues it";
  EXPECT_EQ(m_marks.size(), 1u);
  Write("a.log.1", "much too late\n");
  EXPECT_EQ(Poll(), Texts{});
}

TEST_F(FileInput, RenamedWhileNobodyRead_IsFound) {
  Write("a.log", "1\n2\n");
  EXPECT_EQ(Poll(), (Texts{"1", "2"}));
  Write("a.log", "3\n");
  Rename("a.log", "a.log-old");
  Write("a.log", "4\n");
  Start();
  EXPECT_EQ(Poll(), (Texts{"3", "4"}));
}

TEST_F(FileInput, GoneWhileNobodyRead_IsSaid) {
  CLogCapture log;
  Write("a.log", "1\n");
  EXPECT_EQ(Poll(), Texts{"1"});
  m_pInput.reset();
  Rename("a.log", "elsewhere");
  m_home.MakeDir("sub");
  Rename("elsewhere", "sub/elsewhere");
  _FileSettings settings;
  settings.strPath = m_home.Path("a.log").Str();
  m_pInput = std::make_unique<CFileInput>(settings, 100, log.Open("zxlogforward"));
  m_pInput->Resume(m_marks);
  EXPECT_EQ(log.Count("*zxlogforward a followed file is gone"), 1u);
  EXPECT_EQ(Poll(), Texts{});
  EXPECT_TRUE(m_marks.empty());
  Write("a.log", "new\n");
  EXPECT_EQ(Poll(), Texts{"new"});
}

TEST_F(FileInput, RenamedWithoutASuccessor_IsStillFollowed) {
  Write("a.log", "1\n");
  EXPECT_EQ(Poll(), Texts{"1"});
  Rename("a.log", "a.log.1");
  m_u64NowMs += 60000;
  EXPECT_EQ(Poll(), Texts{});
  Write("a.log.1", "2\n");
  EXPECT_EQ(Poll(), Texts{"2"});
}

TEST_F(FileInput, Truncated_IsReadFromItsStart) {
  Write("a.log", "one\ntwo\n");
  EXPECT_EQ(Poll().size(), 2u);
  ASSERT_EQ(truncate(m_home.Path("a.log").c_str(), 0), 0);
  Write("a.log", "new\n");
  EXPECT_EQ(Poll(), Texts{"new"});
}

TEST_F(FileInput, TruncatedAndLongerAgain_IsNoticedByItsFirstBytes) {
  Write("a.log", "one\n");
  EXPECT_EQ(Poll(), Texts{"one"});
  ASSERT_EQ(truncate(m_home.Path("a.log").c_str(), 0), 0);
  Write("a.log", "other and longer\nsecond\n");
  EXPECT_EQ(Poll(), (Texts{"other and longer", "second"}));
}

TEST_F(FileInput, InodeOfAnotherFile_IsNotTakenForTheOld) {
  Write("a.log", "one\ntwo\n");
  EXPECT_EQ(Poll().size(), 2u);
  m_pInput.reset();
  ASSERT_EQ(truncate(m_home.Path("a.log").c_str(), 0), 0);  // the same inode with other bytes, as after reuse
  Write("a.log", "quite another file, and longer\n");
  Start();
  EXPECT_EQ(Poll(), Texts{"quite another file, and longer"});
}

TEST_F(FileInput, FromTheEnd_SkipsWhatWasThere_Once) {
  Write("a.log", "old\n");
  Start(true);
  EXPECT_EQ(Poll(), Texts{});
  Write("a.log", "new\n");
  EXPECT_EQ(Poll(), Texts{"new"});
  Rename("a.log", "a.log.1");
  Write("a.log", "rotated\n");
  EXPECT_EQ(Poll(), Texts{"rotated"}) << "only the very first file is entered at its end";
}

TEST_F(FileInput, LongLine_IsCut_AndAnEndlessOneDoesNotStop) {
  Write("a.log", std::string(250, 'x'));
  EXPECT_EQ(Poll(), (Texts{std::string(100, 'x'), std::string(100, 'x')}));
  Write("a.log", "\n");
  EXPECT_EQ(Poll(), Texts{std::string(50, 'x')});
}

TEST_F(FileInput, Budget_IsKept_AndNothingIsLostOverIt) {
  std::string strText;
  for (int i = 0; i < 60000; ++i)
    strText += "line " + std::to_string(i) + "\n";
  Write("a.log", strText);
  size_t uCount = 0;
  for (int iRound = 0; iRound < 100 && uCount < 60000; ++iRound)
    uCount += Poll(true, 1000).size();
  EXPECT_EQ(uCount, 60000u);
}

TEST_F(FileInput, WhatIsNoFile_IsLeftAlone) {
  ASSERT_EQ(mkfifo(m_home.Path("a.log").c_str(), 0600), 0);
  EXPECT_EQ(Poll(), Texts{});
  m_home.Remove("a.log");
  m_home.MakeDir("a.log");
  EXPECT_EQ(Poll(), Texts{});
  m_home.Remove("a.log");
  Write("a.log", "file\n");
  EXPECT_EQ(Poll(), Texts{"file"});
}

}  // namespace
