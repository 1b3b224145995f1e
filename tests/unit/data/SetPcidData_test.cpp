#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "data/AgentCodes.h"
#include "support/DataHome.h"

namespace {

constexpr char kFile[] = "home/etc/zxagent/inner/pcid.dat";

class SetPcidData : public testing::Test {
 protected:
  SetPcidData() { m_home.Init(); }
  CAgentData& Data() { return m_home.Data(); }
  void Set(const CPString& strText) { EXPECT_EQ(Data().SetPcidData(strText, 0), 0u); }
  std::string NameOf(int iId) {
    CPString strProduct;
    CPString strCombo;
    return Data().GetProductComboByID(iId, strProduct, strCombo) ? strProduct.Str() + "/" + strCombo.Str()
                                                                 : "";
  }
  int IdOf(const char* pszProduct, const char* pszCombo) {
    int iId = -1;
    return Data().GetIDByProductCombo(pszProduct, pszCombo, iId) ? iId : 0;
  }
  // "idpcMap[..] pcidMap[..] strpcMap[..]" of the last load
  bool Sizes(int iIds, int iKeys) {
    return m_home.Log().Contains(
        CPString::Make("idpcMap[%d] pcidMap[%d] strpcMap[%d]", iIds, iKeys, iKeys).Str());
  }

  CDataHome m_home;
};

struct _PieceCase {
  const char* pszName;
  std::string strText;
  int iId;  // the one id that counts, 0: none
};

class SetPcidDataPiece : public SetPcidData, public testing::WithParamInterface<_PieceCase> {};

const _PieceCase kPieces[] = {
    {"Good", "a,b,3", 3},
    {"IdZero", "a,b,0", 0},
    {"IdNegative", "a,b,-4", 0},
    {"EmptyCombo", "a,,3", 0},
    {"EmptyProduct", ",b,3", 0},
    {"OneComma", "a,b", 0},
    {"NoComma", "ab", 0},
    {"EmptyId", "a,b,", 0},
    {"IdIsText", "a,b,x3", 0},
    {"IdWithTail", "a,b,3x", 3},
    {"IdWithFourthField", "a,b,3,9", 3},
    {"IdWithBlank", "a,b, 3", 3},
    {"LargestId", "a,b,2147483647", 2147483647},
    {"IdBeyondInt", "a,b,2147483648", 0},
    {"IdBeyondIntThatWrapsToThree", "a,b,4294967299", 0},
    {"IdBeyondLong", "a,b,99999999999999999999999", 0},
    {"EmptyPieces", "||a,b,3||", 3},
    {"NulInTheId",
     std::string("a,b,3\0"
                 "9",
                 7),
     3},
    {"Binary", std::string("\xff\0,\1\2", 5), 0},
};

}  // namespace

TEST_P(SetPcidDataPiece, CountsWhenItIsWhole) {
  Set(CPString(GetParam().strText));
  EXPECT_EQ(IdOf("a", "b"), GetParam().iId);
  EXPECT_TRUE(Sizes(GetParam().iId != 0 ? 1 : 0, GetParam().iId != 0 ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(Pieces, SetPcidDataPiece, testing::ValuesIn(kPieces),
                         [](const testing::TestParamInfo<_PieceCase>& test) { return test.param.pszName; });

TEST_F(SetPcidData, LastOneWins) {
  Set("A,B,3|a,b,4");
  EXPECT_EQ(IdOf("a", "b"), 4);
  EXPECT_EQ(IdOf("A", "B"), 4);
  EXPECT_EQ(NameOf(3), "A/B");
  EXPECT_EQ(NameOf(4), "a/b");
  EXPECT_TRUE(Sizes(2, 1));

  Set("A,B,3|C,D,3");
  EXPECT_EQ(NameOf(3), "C/D");
  EXPECT_EQ(IdOf("A", "B"), 3);
}

TEST_F(SetPcidData, TellsWhatItLoaded) {
  Set("A,B,3|C,D,7|bad");
  CMainLog& log = m_home.Log();
  EXPECT_EQ(log.LevelOf("zxagent CAgentData::SetPcidData iId[7] strProduct[C] strCombo[D]"), kLogInfo);
  EXPECT_EQ(
      log.LevelOf(
          "zxagent CAgentData::SetPcidData bSaveFile[0] strPcidData[15] idpcMap[2] pcidMap[2] strpcMap[2]"),
      kLogInfo);
  EXPECT_EQ(log.LevelOf("zxagent CAgentData::SetPcidData strPcidData[A,B,3|C,D,7|bad]\n"), kLogInfo);
}

TEST_F(SetPcidData, ReplacesTheWholeTable) {
  Set("A,B,3");
  Set("C,D,7");
  EXPECT_EQ(NameOf(3), "");
  EXPECT_EQ(IdOf("A", "B"), 0);
  Set("nothing valid");
  EXPECT_EQ(NameOf(7), "");
}

TEST_F(SetPcidData, IdOneHasABuiltInMeaning) {
  EXPECT_EQ(NameOf(1), "veltExtHost/PCInfo");
  EXPECT_EQ(NameOf(2), "");
  EXPECT_EQ(IdOf("veltExtHost", "PCInfo"), 0);
  Set("A,B,1");
  EXPECT_EQ(NameOf(1), "A/B");
}

TEST_F(SetPcidData, TransProductCombo_AnswersTheTablesSpelling) {
  Set("a,b,3");
  CPString strProduct = "A";
  CPString strCombo = "B";
  EXPECT_EQ(Data().TransProductCombo(strProduct, strCombo), 1);
  EXPECT_EQ(strProduct, "a");
  EXPECT_EQ(strCombo, "b");
  strProduct = "X";
  EXPECT_EQ(Data().TransProductCombo(strProduct, strCombo), 0);
  EXPECT_EQ(strProduct, "X");
  EXPECT_EQ(strCombo, "b");
}

TEST_F(SetPcidData, MissesLeaveTheOutputsAlone) {
  CPString strProduct = "p";
  CPString strCombo = "c";
  int iId = 42;
  EXPECT_EQ(Data().GetProductComboByID(99, strProduct, strCombo), 0);
  EXPECT_EQ(Data().GetIDByProductCombo("p", "c", iId), 0);
  EXPECT_EQ(strProduct, "p");
  EXPECT_EQ(strCombo, "c");
  EXPECT_EQ(iId, 42);
}

TEST_F(SetPcidData, SavesTheTextAsItIs) {
  const CPString strText("A,B,3|bad|\0x", 12);
  EXPECT_EQ(Data().SetPcidData(strText, 1), 0u);
  EXPECT_EQ(m_home.Temp().ReadFile(kFile), strText);
  EXPECT_FALSE(m_home.Temp().Exists(std::string(kFile) + ".tmp"));
  CPString strRead;
  EXPECT_EQ(Data().ReadPcidData(strRead), 1);
  EXPECT_EQ(strRead, strText);
}

TEST_F(SetPcidData, EmptyTextEmptiesTableAndFile) {
  EXPECT_EQ(Data().SetPcidData("A,B,3", 1), 0u);
  EXPECT_EQ(Data().SetPcidData("", 1), 0u);
  EXPECT_EQ(IdOf("A", "B"), 0);
  EXPECT_EQ(NameOf(3), "");
  EXPECT_EQ(m_home.Temp().ReadFile(kFile), "");
  CPString strRead = "x";
  EXPECT_EQ(Data().ReadPcidData(strRead), 1);
  EXPECT_TRUE(strRead.IsEmpty());
}

TEST_F(SetPcidData, KeepsTheNewTable_WhenSavingFails) {
  m_home.Temp().Remove("home/etc/zxagent/inner");
  EXPECT_EQ(Data().SetPcidData("A,B,3", 1), kErrPcidSave);
  EXPECT_EQ(IdOf("A", "B"), 3);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::SavePcidData Error SaveFileData Error[2] strFileTmp[" +
                                 m_home.Path(kFile) + ".tmp]"),
            kLogWarn);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::SetPcidData SavePcidData Error[2]"), kLogWarn);
}

TEST_F(SetPcidData, SaysSo_WhenTheFileCannotBeMoved) {
  m_home.Temp().MakeDir(kFile);
  EXPECT_EQ(Data().SetPcidData("A,B,3", 1), kErrPcidSave);
  EXPECT_TRUE(
      m_home.Log().Contains("*zxagent CAgentData::SavePcidData Error MyMoveFile Error[21] strFileTmp[" +
                            m_home.Path(kFile) + ".tmp] strFile[" + m_home.Path(kFile) + "]"));
}

TEST_F(SetPcidData, ReadPcidData_SaysSo_WhenThereIsNoFile) {
  CPString strRead = "x";
  EXPECT_EQ(Data().ReadPcidData(strRead), 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::ReadPcidData ReadFileData Warn[2] strFile[" +
                                 m_home.Path(kFile) + "]"),
            kLogWarn);
}

TEST_F(SetPcidData, CleanPcidData_ForgetsOneDirectionOnly) {
  Set("A,B,3");
  Data().CleanPcidData();
  EXPECT_EQ(IdOf("A", "B"), 0);
  EXPECT_EQ(NameOf(3), "A/B");
  CPString strProduct = "a";
  CPString strCombo = "b";
  EXPECT_EQ(Data().TransProductCombo(strProduct, strCombo), 1);
}

TEST_F(SetPcidData, ReadersNeverSeeHalfATable) {
  const CPString strTables[] = {"A,B,3|C,D,4", "A,B,5|C,D,6"};
  std::atomic<bool> bStop{false};
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i)
      Set(strTables[i % 2]);
    bStop = true;
  });
  while (!bStop) {
    CPString strProduct = "a";
    CPString strCombo = "b";
    const int iId = IdOf("a", "b");
    EXPECT_TRUE(iId == 0 || iId == 3 || iId == 5) << iId;
    EXPECT_TRUE(iId == 0 || Data().TransProductCombo(strProduct, strCombo) == 1);
  }
  writer.join();
  EXPECT_EQ(IdOf("a", "b"), 5);
}
