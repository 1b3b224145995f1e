// Log caches: the tagged text taken apart, and who may hand one over.
#include <tuple>

#include "receive/ReceiveFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr char kPlugin[] = "11111111-2222-3333-4444-555555555555";
constexpr char kTypical[] =
    "<guid={11111111-2222-3333-4444-555555555555}><product=Scan><combo=One><version=1.2><msgtype=2><priv=3>"
    "<dataid=1A2B><end=1><msg={\"k\":1}>";

// A log-cache text with one of its tags replaced (an empty text takes it out). The order is the one in which
// they are looked for, so that the replaced tag can end last.
struct _Tags {
  std::string strVersion = "<version=1.2>";
  std::string strDataId = "<dataid=1A2B>";
  std::string strPriv = "<priv=3>";
  std::string strMsgType = "<msgtype=2>";
  std::string strGuid = "<guid=11111111-2222-3333-4444-555555555555>";
  std::string strProduct = "<product=Scan>";
  std::string strCombo = "<combo=One>";
  std::string strEnd = "<end=1><msg=";
  std::string strBody = "body>";

  std::string Text() const {
    return strVersion + strDataId + strPriv + strMsgType + strGuid + strProduct + strCombo + strEnd + strBody;
  }
};

struct _Parsed {
  uint32_t uiCode = 0;
  CPString strVersion = "v";
  unsigned long long u64DataId = 77;
  int iPriv = 78;
  int iMsgType = 79;
  GUID guid;
  CPString strProduct = "p";
  CPString strCombo = "c";
  bool bBody = false;
  std::string strBody;
};

_Parsed Parse(const std::string& strText) {
  const CPString strData(strText);
  _Parsed parsed;
  const char* pMsg = nullptr;
  unsigned int uiMsgLen = 0;
  parsed.uiCode = CAgentReceive::ParseLogCache(strData, parsed.strVersion, parsed.u64DataId, parsed.iPriv,
                                               parsed.iMsgType, parsed.guid, parsed.strProduct,
                                               parsed.strCombo, pMsg, uiMsgLen);
  parsed.bBody = pMsg != nullptr;
  if (pMsg != nullptr) {
    EXPECT_GE(pMsg, strData.data());
    EXPECT_LE(pMsg + uiMsgLen, strData.data() + strData.GetLength());
    parsed.strBody.assign(pMsg, uiMsgLen);
  }
  return parsed;
}

// --- One tag.

struct _TagCase {
  const char* pszName;
  const char* pszText;
  unsigned long ulEnd;
  bool bFound;
  const char* pszValue;
};

void PrintTo(const _TagCase& testCase, std::ostream* pOut) {
  *pOut << testCase.pszName;
}

class LogCacheTag : public ::testing::TestWithParam<_TagCase> {};

INSTANTIATE_TEST_SUITE_P(Cases, LogCacheTag,
                         ::testing::Values(_TagCase{"Plain", "<a=1><b=2>", 10, true, "1"},
                                           _TagCase{"Empty", "<a=><b=2>", 9, true, ""},
                                           _TagCase{"Absent", "<c=1><b=2>", 10, false, "before"},
                                           _TagCase{"Unterminated", "<a=1", 4, false, "before"},
                                           _TagCase{"LastBracketIsNoEnd", "<a=1>", 5, false, "before"},
                                           _TagCase{"EndsAtItsFirstBrackets", "<a=x><y><b=2>", 13, true, "x"},
                                           _TagCase{"FirstOfTwo", "<a=1><a=2><b=3>", 15, true, "1"},
                                           _TagCase{"KeyJustBeforeTheEnd", "--<a=1><b", 3, false, "before"},
                                           _TagCase{"KeyAtTheEnd", "<a=1><b=2>", 0, false, "before"},
                                           _TagCase{"TerminatorJustBeforeTheEnd", "<a=1><b=2>", 5, true, "1"},
                                           _TagCase{"TerminatorAtTheEnd", "<a=1><b=2>", 4, false, "before"},
                                           _TagCase{"EndBehindTheText", "<a=1><b=2>", 1000, true, "1"},
                                           _TagCase{"EmptyText", "", 0, false, "before"},
                                           _TagCase{"OnlyKey", "<a=", 3, false, "before"}),
                         CaseName<_TagCase>);

TEST_P(LogCacheTag, IsFound_WhenItStartsAndEndsBeforeTheEnd) {
  CPString strValue = "before";
  EXPECT_EQ(CAgentReceive::AnalyMsgData(GetParam().pszText, "<a=", GetParam().ulEnd, strValue),
            GetParam().bFound);
  EXPECT_EQ(strValue, GetParam().pszValue);
}

// --- The whole text.

TEST(LogCacheText, Parse_ReadsEveryTag_OfATypicalText) {
  const _Parsed parsed = Parse(kTypical);
  EXPECT_EQ(parsed.uiCode, 0u);
  EXPECT_EQ(parsed.strVersion, "1.2");
  EXPECT_EQ(parsed.u64DataId, 6699u);
  EXPECT_EQ(parsed.iPriv, 3);
  EXPECT_EQ(parsed.iMsgType, 2);
  EXPECT_EQ(parsed.guid, GUID(kPlugin));
  EXPECT_EQ(parsed.strProduct, "Scan");
  EXPECT_EQ(parsed.strCombo, "One");
  EXPECT_EQ(parsed.strBody, "{\"k\":1}");
}

TEST(LogCacheText, Parse_TakesTheTagsInAnyOrder) {
  const _Parsed parsed = Parse(_Tags().Text());
  EXPECT_EQ(parsed.uiCode, 0u);
  EXPECT_EQ(parsed.u64DataId, 0x1a2bu);
  EXPECT_EQ(parsed.strCombo, "One");
  EXPECT_EQ(parsed.guid, GUID(kPlugin)) << "no braces";
  EXPECT_EQ(parsed.strBody, "body");
}

struct _BodyCase {
  const char* pszName;
  std::string strEndAndBody;
  uint32_t uiCode;
  std::string strBody;
};

void PrintTo(const _BodyCase& testCase, std::ostream* pOut) {
  *pOut << testCase.pszName;
}

class LogCacheBody : public ::testing::TestWithParam<_BodyCase> {};

INSTANTIATE_TEST_SUITE_P(Cases, LogCacheBody,
                         ::testing::Values(_BodyCase{"OneByte", "<end=1><msg=b>", 0, "b"},
                                           _BodyCase{"Empty", "<end=1><msg=>", 0xb0010065, ""},
                                           _BodyCase{"NoClosingBracket", "<end=1><msg=body", 0xb0010065, ""},
                                           _BodyCase{"NoBody", "<end=1><msg=", 0xb0010065, ""},
                                           _BodyCase{"NoEnd", "<msg=body>", 0xb0010065, ""},
                                           _BodyCase{"OtherEnd", "<end=2><msg=body>", 0xb0010065, ""},
                                           _BodyCase{"KeepsBrackets", "<end=1><msg=a>b>><c>>", 0, "a>b>><c>"},
                                           _BodyCase{"StopsAtTheLastBracket", "<end=1><msg=a>tail", 0, "a"},
                                           _BodyCase{"OnlyABracket", "<end=1><msg=>>", 0, ">"},
                                           _BodyCase{"SecondEndIsBody", "<end=1><msg=a<end=1><msg=b>", 0,
                                                     "a<end=1><msg=b"},
                                           _BodyCase{"Binary", std::string("<end=1><msg=a\0\xff\n>", 17), 0,
                                                     std::string("a\0\xff\n", 4)}),
                         CaseName<_BodyCase>);

TEST_P(LogCacheBody, EndsAtTheLastBracket) {
  _Tags tags;
  tags.strEnd = GetParam().strEndAndBody;
  tags.strBody.clear();
  const _Parsed parsed = Parse(tags.Text());
  EXPECT_EQ(parsed.uiCode, GetParam().uiCode);
  EXPECT_EQ(parsed.strBody, GetParam().strBody);
}

TEST(LogCacheText, Parse_WantsABodyFirst) {
  EXPECT_EQ(Parse("").uiCode, 0xb0010065u);
  EXPECT_EQ(Parse(">").uiCode, 0xb0010065u);
  EXPECT_EQ(Parse("no tags at all").uiCode, 0xb0010065u);
  EXPECT_EQ(Parse("<end=1><msg=x>").uiCode, 0xb0010066u);
}

struct _MissingCase {
  const char* pszName;
  std::string _Tags::*pTag;
  const char* pszKey;
  uint32_t uiCode;
};

void PrintTo(const _MissingCase& testCase, std::ostream* pOut) {
  *pOut << testCase.pszName;
}

class LogCacheMissing : public ::testing::TestWithParam<_MissingCase> {
 protected:
  // Every tag but this one, which stands last as strTag.
  static std::string WithLastTag(const std::string& strTag) {
    _Tags tags;
    tags.*GetParam().pTag = "";
    tags.strEnd = strTag + tags.strEnd;
    return tags.Text();
  }
};

INSTANTIATE_TEST_SUITE_P(
    Tags, LogCacheMissing,
    ::testing::Values(_MissingCase{"Version", &_Tags::strVersion, "<version=", 0xb0010066},
                      _MissingCase{"DataId", &_Tags::strDataId, "<dataid=", 0xb0010067},
                      _MissingCase{"Priv", &_Tags::strPriv, "<priv=", 0xb0010068},
                      _MissingCase{"MsgType", &_Tags::strMsgType, "<msgtype=", 0xb0010069},
                      _MissingCase{"Guid", &_Tags::strGuid, "<guid=", 0xb001006a},
                      _MissingCase{"Product", &_Tags::strProduct, "<product=", 0xb001006b},
                      _MissingCase{"Combo", &_Tags::strCombo, "<combo=", 0xb001006c}),
    CaseName<_MissingCase>);

TEST_P(LogCacheMissing, AnswersTheTagsCode_WhenItIsAbsent) {
  EXPECT_EQ(Parse(WithLastTag("")).uiCode, GetParam().uiCode);
}

TEST_P(LogCacheMissing, AnswersTheTagsCode_WhenItHasNoEnd) {
  EXPECT_EQ(Parse(WithLastTag(std::string(GetParam().pszKey) + "1")).uiCode, GetParam().uiCode);
  EXPECT_EQ(Parse(WithLastTag(GetParam().pszKey)).uiCode, GetParam().uiCode);
}

TEST_P(LogCacheMissing, AnswersTheTagsCode_WhenItStandsInTheBody) {
  EXPECT_EQ(Parse(WithLastTag("") + GetParam().pszKey + "1><x>").uiCode, GetParam().uiCode);
}

TEST_P(LogCacheMissing, FindsTheTag_WhenItIsTheLastOne) {
  EXPECT_EQ(Parse(WithLastTag(std::string(GetParam().pszKey) + "1>")).uiCode, 0u);
}

TEST_P(LogCacheMissing, TakesTheFirst_WhenItStandsTwice) {
  _Tags tags;
  const std::string strOnce = tags.Text();
  tags.strEnd = std::string(GetParam().pszKey) + "9>" + tags.strEnd;
  const _Parsed once = Parse(strOnce);
  const _Parsed twice = Parse(tags.Text());
  EXPECT_EQ(twice.uiCode, 0u);
  EXPECT_EQ(std::tie(twice.strVersion, twice.u64DataId, twice.iPriv, twice.iMsgType, twice.guid,
                     twice.strProduct, twice.strCombo, twice.strBody),
            std::tie(once.strVersion, once.u64DataId, once.iPriv, once.iMsgType, once.guid, once.strProduct,
                     once.strCombo, once.strBody));
}

TEST(LogCacheText, Parse_AnswersTheFirstCode_WhenSeveralTagsAreMissing) {
  _Tags tags;
  tags.strPriv = tags.strGuid = tags.strCombo = "";
  EXPECT_EQ(Parse(tags.Text()).uiCode, 0xb0010068u);
}

TEST(LogCacheText, Parse_KeepsWhatItReadBeforeAFailure) {
  _Tags tags;
  tags.strMsgType = "";
  const _Parsed parsed = Parse(tags.Text());
  EXPECT_EQ(parsed.uiCode, 0xb0010069u);
  EXPECT_EQ(parsed.strVersion, "1.2");
  EXPECT_EQ(parsed.u64DataId, 0x1a2bu);
  EXPECT_EQ(parsed.iPriv, 3);
  EXPECT_EQ(parsed.iMsgType, 79) << "not reached";
  EXPECT_EQ(parsed.guid, GUID());
  EXPECT_EQ(parsed.strProduct, "p");
  EXPECT_EQ(parsed.strCombo, "c");
  EXPECT_EQ(parsed.strBody, "body");
}

TEST(LogCacheText, Parse_LeavesEverything_WithoutABody) {
  const _Parsed parsed = Parse("<version=1><dataid=1><end=1><msg=>");
  EXPECT_EQ(parsed.strVersion, "v");
  EXPECT_EQ(parsed.u64DataId, 77u);
  EXPECT_FALSE(parsed.bBody);
}

struct _NumberCase {
  const char* pszName;
  const char* pszDataId;
  unsigned long long u64DataId;
  const char* pszPriv;
  int iPriv;
};

void PrintTo(const _NumberCase& testCase, std::ostream* pOut) {
  *pOut << testCase.pszName;
}

class LogCacheNumber : public ::testing::TestWithParam<_NumberCase> {};

INSTANTIATE_TEST_SUITE_P(Cases, LogCacheNumber,
                         ::testing::Values(_NumberCase{"Upper", "1A2B", 6699, "3", 3},
                                           _NumberCase{"Lower", "1a2b", 6699, "0", 0},
                                           _NumberCase{"NoDigits", "zz", 0, "zz", 0},
                                           _NumberCase{"Empty", "", 0, "", 0},
                                           _NumberCase{"StopsAtTheFirstOther", "12xyz", 0x12, "12abc", 12},
                                           _NumberCase{"Largest", "ffffffffffffffff", 0xffffffffffffffffull,
                                                       "2147483647", 2147483647},
                                           _NumberCase{"Signed", "1", 1, "-3", -3},
                                           _NumberCase{"Smallest", "8000000000000000", 0x8000000000000000ull,
                                                       "-2147483648", -2147483647 - 1}),
                         CaseName<_NumberCase>);

TEST_P(LogCacheNumber, IsReadUpToTheFirstForeignCharacter) {
  _Tags tags;
  tags.strDataId = std::string("<dataid=") + GetParam().pszDataId + ">";
  tags.strPriv = std::string("<priv=") + GetParam().pszPriv + ">";
  tags.strMsgType = std::string("<msgtype=") + GetParam().pszPriv + ">";
  const _Parsed parsed = Parse(tags.Text());
  EXPECT_EQ(parsed.uiCode, 0u);
  EXPECT_EQ(parsed.u64DataId, GetParam().u64DataId);
  EXPECT_EQ(parsed.iPriv, GetParam().iPriv);
  EXPECT_EQ(parsed.iMsgType, GetParam().iPriv);
}

TEST(LogCacheText, Parse_TakesNumbersOfAnyLength) {
  _Tags tags;
  tags.strDataId = "<dataid=" + std::string(4096, 'f') + ">";
  tags.strPriv = "<priv=" + std::string(4096, '9') + ">";
  tags.strMsgType = "<msgtype=-" + std::string(4096, '9') + ">";
  EXPECT_EQ(Parse(tags.Text()).uiCode, 0u);
}

TEST(LogCacheText, Parse_LeavesTheIdZero_WhenItsTextIsNoId) {
  _Tags tags;
  tags.strGuid = "<guid=nobody>";
  const _Parsed parsed = Parse(tags.Text());
  EXPECT_EQ(parsed.uiCode, 0u);
  EXPECT_EQ(parsed.guid, GUID());
}

TEST(LogCacheText, Parse_EndsAValueAtItsFirstBrackets) {
  _Tags tags;
  tags.strProduct = "<product=a><b>";
  const _Parsed parsed = Parse(tags.Text());
  EXPECT_EQ(parsed.uiCode, 0u);
  EXPECT_EQ(parsed.strProduct, "a");
}

// --- Messages.

class LogCache : public CReceiveTest {
 protected:
  _Answer Hand(const std::string& strData, const char* pszSender = kLogCacheGuid) {
    return Ask(20002, strData, GUID(pszSender));
  }
};

TEST_F(LogCache, Message_GoesToTheManager) {
  EXPECT_EQ(Hand(kTypical), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  const _PassedMsg msg = m_queries.Messages()[0];
  EXPECT_EQ(msg.u64DataId, 6699u);
  EXPECT_EQ(msg.iPriv, 3);
  EXPECT_EQ(msg.iMsgType, 2);
  EXPECT_EQ(msg.guid, GUID(kPlugin));
  EXPECT_EQ(msg.strProduct, "Scan");
  EXPECT_EQ(msg.strCombo, "One");
  EXPECT_EQ(msg.strMsg, "{\"k\":1}");
  EXPECT_EQ(msg.uiKind, 1u);
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(
          "2 zxagent stepA OK recvnew strVersion[1.2] u64DataId[1a2b] iPriv[3] iMsgType[2] strPluginId[11111111-2222-3333-4444-555555555555] strProduct[Scan] strCombo[One] uiDataLength[135][7]",
          std::string("1 zxagent SendMsg u64DataId[1a2b] strDataMsg[") + kTypical + "]"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(LogCache, Message_GetsTheManagersCode_WhenItIsRefusedThere) {
  m_queries.SetResult(0xb0010053);
  EXPECT_EQ(Hand(kTypical), (_Answer{0xb0010053, kReplyError}));
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(
          "3 *zxagent stepA Error recvnew iReplyStatus[b0010053] strVersion[1.2] u64DataId[1a2b] iPriv[3] iMsgType[2] strPluginId[11111111-2222-3333-4444-555555555555] strProduct[Scan] strCombo[One] uiDataLength[135][7]",
          std::string("1 zxagent SendMsg u64DataId[1a2b] strDataMsg[") + kTypical + "]"));
}

TEST_F(LogCache, Message_IsRefused_WhenTheSenderIsAnotherComponent) {
  for (const char* pszSender : {kTaskMgrGuid, kSender, "9946467F-0102-46E8-ACAC-B9EFE3CD68FC",
                                "00000000-0000-0000-0000-000000000000"}) {
    m_log.Clear();
    EXPECT_EQ(Hand("x", pszSender), (_Answer{0xb0010062, kReplyError}));
    EXPECT_THAT(
        Lines("zxlogcache"),
        ElementsAre(std::string("3 *zxagent DisposeLogCache Error is not LogCache Guid uiDataLength[1] "
                                "recvGuid[") +
                    pszSender + "]"));
  }
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(LogCache, Message_IsRefused_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Hand(kTypical, kTaskMgrGuid), (_Answer{0xb0010003, kReplyError})) << "checked before the sender";
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(
          std::string("3 *zxagent DisposeLogCache Error pAgentMgr is NULL uiDataLength[135] recvGuid[") +
          kTaskMgrGuid + "]"));
}

TEST_F(LogCache, Message_GetsTheParsersCode_WhenItsTextIsBad) {
  EXPECT_EQ(Hand("<version=1><end=1><msg=x>"), (_Answer{0xb0010067, kReplyError}));
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(std::string("3 *zxagent stepA Error ParseLogCache iReplyStatus[b0010067] recvGuid[") +
                  kLogCacheGuid + "] uiDataLength[25] strDataMsg[<version=1><end=1><msg=x>]"));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(LogCache, Message_GetsTheParsersCode_WithoutData) {
  const char cData = 'x';
  EXPECT_EQ(Ask(20002, nullptr, 0, GUID(kLogCacheGuid)), (_Answer{0xb0010065, kReplyError}));
  EXPECT_EQ(Ask(20002, nullptr, 0xffffffff, GUID(kLogCacheGuid)), (_Answer{0xb0010065, kReplyError}));
  EXPECT_EQ(Ask(20002, &cData, 0, GUID(kLogCacheGuid)), (_Answer{0xb0010065, kReplyError}));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(LogCache, Message_IsRefused_WhenMemoryIsOut) {
  m_queries.SetThrow(true);
  EXPECT_EQ(Hand(kTypical), (_Answer{0xb0010003, kReplyError}));
}

TEST_F(LogCache, Message_EndsAtItsLength) {
  const std::string strData = kTypical;
  EXPECT_EQ(Ask(20002, strData.data(), static_cast<unsigned int>(strData.size() - 1), GUID(kLogCacheGuid)),
            (_Answer{0xb0010065, kReplyError}));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(LogCache, Message_KeepsBinaryBodies) {
  _Tags tags;
  tags.strBody = std::string("a\0<b>\xff>", 7);
  EXPECT_EQ(Hand(tags.Text()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].strMsg, std::string("a\0<b>\xff", 6));
}

TEST_F(LogCache, Message_MayBeAsLongAsTheBusTakes) {
  _Tags tags;
  tags.strBody = "";
  const std::string strBody(kBusMaxBytes - tags.Text().size() - 1, '>');
  tags.strBody = strBody + ">";
  EXPECT_EQ(Hand(tags.Text()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_TRUE(m_queries.Messages()[0].strMsg == strBody);
}

TEST_F(LogCache, Message_IsRefusedInTime_WhenItIsFullOfBrackets) {
  std::string strData;
  while (strData.size() < kBusMaxBytes - 64)
    strData += "<version=<guid=<end=1>";
  EXPECT_EQ(Hand(strData + "<end=1><msg=x>"), (_Answer{0xb0010067, kReplyError}));
}

}  // namespace
