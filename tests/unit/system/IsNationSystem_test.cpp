#include <gtest/gtest.h>

#include "support/MainLog.h"
#include "support/TempHome.h"
#include "system/AgentSystem.h"

namespace {

struct _NationCase {
  const char* pszName;
  std::string strText;
  int iExpect;
};

class IsNationSystem : public testing::TestWithParam<_NationCase> {
 protected:
  int Call() const { return CAgentSystem(m_root.Path("root")).IsNationSystem(); }
  void Write(const CPString& strText) const { m_root.WriteFile("root/etc/os-release", strText); }

  CTempHome m_root;
  CMainLog m_log;
};

const _NationCase kCases[] = {
    {"KylinServer", "NAME=\"Kylin Linux Advanced Server\"\nVERSION=\"V10\"\nID=\"kylin\"\n", 1},
    {"KylinByNameOnly", "NAME=\"Kylin Linux Advanced Server\"\n", 1},
    {"UosById", "NAME=\"Something\"\nID=uos\n", 1},
    {"Uniontech", "NAME=\"UnionTech OS Server 20\"\nID=other\n", 1},
    {"NeoKylin", "ID=NeoKylin\n", 1},
    {"Ky10", "ID=KY10SP2\n", 1},
    {"NfsOnItsOwn", "ID=nfs\n", 1},
    {"NfsInsideAnotherWord", "NAME=\"Confserver\"\n", 1},
    {"ChineseName", "NAME=\"中科方德桌面操作系统\"\nID=other\n", 1},
    {"Debian", "PRETTY_NAME=\"Debian GNU/Linux 12\"\nNAME=\"Debian GNU/Linux\"\nID=debian\n", 0},
    {"Empty", "", 0},
    {"OnlyBlankLines", "\n   \n\t\r\n", 0},
    {"NeitherNameNorId", "VERSION=kylin\n", 0},
    {"OtherKeysDoNotCount", "PRETTY_NAME=kylin\nVERSION_ID=kylin\nID_LIKE=kylin\nNAMES=kylin\nIDS=kylin\n",
     0},
    {"KeysIgnoreCase", "name=kylin\n", 1},
    {"KeyMayEndInBlanks", "ID \t=uos\n", 1},
    {"LineMayBeginWithBlanks", " \t NAME=kylin\n", 1},
    {"BlanksThenComment", "   # x\n  #NAME=kylin\n", 0},
    {"CommentWithName", "#NAME=kylin\n", 0},
    {"WithoutEqualSign", "NAME kylin\nID\n", 0},
    {"FirstNameCounts", "NAME=debian\nNAME=kylin\nID=x\n", 0},
    {"FirstIdCounts", "ID=debian\nID=kylin\nNAME=x\n", 0},
    {"StopsBehindNameAndId", "NAME=a\nID=b\nNAME=kylin\n", 0},
    {"CutAtTheFirstEqualSign", "NAME=a=kylin\n", 1},
    {"WithoutLineEnd", "ID=kylin", 1},
    {"DosLineEnds", "NAME=a\r\nID=uos\r\n", 1},
    {"NulEndsTheLine", std::string("NAME=a\0kylin\nID=b\n", 18), 0},
    {"LineThatBeginsWithNulIsSkipped", std::string("\0NAME=kylin\nID=uos\n", 19), 1},
    {"LongLineInOnePiece", "NAME=" + std::string(1013, 'x') + "kylin\n", 1},        // ends at byte 1023
    {"LongLineIsCutThere", "NAME=" + std::string(1014, 'x') + "kylin\nID=a\n", 0},  // "kyli" and "n"
    {"RestOfALongLineIsALine", "#" + std::string(1022, 'x') + "ID=uos\n", 1},
};

}  // namespace

TEST_P(IsNationSystem, DecidesByNameThenId) {
  Write(CPString(GetParam().strText));
  EXPECT_EQ(Call(), GetParam().iExpect);
}

INSTANTIATE_TEST_SUITE_P(Files, IsNationSystem, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<_NationCase>& test) { return test.param.pszName; });

TEST_F(IsNationSystem, SaysNo_WhenTheFileIsMissing) {
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentSystem::IsNationSystem fopen Error[2] szFile[" +
                          m_root.Path("root/etc/os-release").Str() + "]"),
            kLogWarn);
}

TEST_F(IsNationSystem, TellsWhatItRead) {
  Write("  NAME=\"A B\"\nID=c\n");
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::IsNationSystem read pBegin[NAME=\"A B\"\n]"), kLogDetail);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::IsNationSystem find NAME strName[\"A B\"\n]"), kLogInfo);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::IsNationSystem find ID strID[c\n]"), kLogInfo);
}
