// Results of the task manager: the binary record, read no further than it reaches.
#include <cstring>

#include "receive/ReceiveFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr char kPlugin[] = "11111111-2222-3333-4444-aaaaaaaaaaaa";

void Put(std::string& str, const void* pValue, size_t uSize) {
  str.append(static_cast<const char*>(pValue), uSize);
}

struct _TaskMgrRecord {
  int32_t iPriv = 3;
  int32_t iMsgType = 2;
  std::string strPlugin = kPlugin;
  std::string strCombo = "One";
  std::string strProduct = "Scan";
  uint64_t u64DataId = 0x1122334455667788ull;
  uint32_t uiLength = 10;
  std::string strData = "0123456789";

  // The fields fill up with NUL bytes; one of 64 bytes has none.
  std::string Bytes() const {
    std::string str;
    Put(str, &iPriv, sizeof(iPriv));
    Put(str, &iMsgType, sizeof(iMsgType));
    for (const std::string& strField : {strPlugin, strCombo, strProduct}) {
      std::string strPadded = strField;
      strPadded.resize(64);
      str += strPadded;
    }
    Put(str, &u64DataId, sizeof(u64DataId));
    Put(str, &uiLength, sizeof(uiLength));
    return str + strData;
  }
};

class TaskMgr : public CReceiveTest {
 protected:
  _Answer Hand(const std::string& strData, const char* pszSender = kTaskMgrGuid) {
    return Ask(20204, strData, GUID(pszSender));
  }
  static std::string TooSmall(size_t uLength) {
    return "3 *zxagent DisposeTaskMgr Error ReceiveCallback size small uiDataLength[" +
           std::to_string(uLength) + "] recvGuid[" + kTaskMgrGuid + "]";
  }
};

TEST_F(TaskMgr, Record_GoesToTheManager) {
  EXPECT_EQ(Hand(_TaskMgrRecord().Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  const _PassedMsg msg = m_queries.Messages()[0];
  EXPECT_EQ(msg.u64DataId, 0x1122334455667788ull);
  EXPECT_EQ(msg.iPriv, 3);
  EXPECT_EQ(msg.iMsgType, 2);
  EXPECT_EQ(msg.guid, GUID(kPlugin));
  EXPECT_EQ(msg.strProduct, "Scan");
  EXPECT_EQ(msg.strCombo, "One");
  EXPECT_EQ(msg.strMsg, "0123456789");
  EXPECT_EQ(msg.uiKind, 2u);
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(
          "2 zxagent stepA OK DisposeTaskMgr recvnew u64DataId[1122334455667788] iPriv[3] iMsgType[2] strPluginId[11111111-2222-3333-4444-AAAAAAAAAAAA] strProduct[Scan] strCombo[One] uiDataLength[222][10]",
          "1 zxagent DisposeTaskMgr u64DataId[1122334455667788] szData[0123456789]"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(TaskMgr, Record_GetsTheManagersCode_WhenItIsRefusedThere) {
  m_queries.SetResult(0xb0010054);
  EXPECT_EQ(Hand(_TaskMgrRecord().Bytes()), (_Answer{0xb0010054, kReplyError}));
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(
          "3 *zxagent stepA Error DisposeTaskMgr recvnew iReplyStatus[b0010054] u64DataId[1122334455667788] iPriv[3] iMsgType[2] strPluginId[11111111-2222-3333-4444-AAAAAAAAAAAA] strProduct[Scan] strCombo[One] uiDataLength[222][10]",
          "1 zxagent DisposeTaskMgr u64DataId[1122334455667788] szData[0123456789]"));
}

// --- Refusals, in the order of the checks.

TEST_F(TaskMgr, Record_IsRefused_WithoutData) {
  const CScopedNoQueries none;
  EXPECT_EQ(Ask(20204, nullptr, 222, GUID(kSender)), (_Answer{0xb0010002, kReplyError}));
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(std::string("3 *zxagent DisposeTaskMgr Error pData is NULL uiDataLength[222] recvGuid[") +
                  kSender + "]"));
}

TEST_F(TaskMgr, Record_IsRefused_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Hand("", kSender), (_Answer{0xb0010003, kReplyError}));
  EXPECT_THAT(
      Lines("zxlogcache"),
      ElementsAre(std::string("3 *zxagent DisposeTaskMgr Error pAgentMgr is NULL uiDataLength[0] recvGuid[") +
                  kSender + "]"));
}

TEST_F(TaskMgr, Record_IsNotRead_WhenTheSenderIsAnotherComponent) {
  const CGuardedBytes nothing("");
  for (const char* pszSender : {kLogCacheGuid, kSender, "FAB922A8-736E-4CB5-A666-4FD849A3049B",
                                "00000000-0000-0000-0000-000000000000"}) {
    m_log.Clear();
    EXPECT_EQ(Ask(20204, nothing.Data(), 4096, GUID(pszSender)), (_Answer{0xb0010062, kReplyError}));
    EXPECT_THAT(
        Lines("zxlogcache"),
        ElementsAre(std::string("3 *zxagent DisposeTaskMgr Error is not TaskMgr Guid uiDataLength[4096] "
                                "recvGuid[") +
                    pszSender + "]"));
  }
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(TaskMgr, Record_IsRefused_WhenItIsShorterThanItsHeader) {
  const std::string strRecord = _TaskMgrRecord().Bytes();
  for (size_t uLength = 0; uLength < 212; ++uLength) {
    m_log.Clear();
    EXPECT_EQ(Hand(strRecord.substr(0, uLength)), (_Answer{0xb0010002, kReplyError}));
    EXPECT_THAT(Lines("zxlogcache"), ElementsAre(TooSmall(uLength)));
  }
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(TaskMgr, Record_IsRefused_WhenItsDataIsCut) {
  EXPECT_EQ(Hand(_TaskMgrRecord().Bytes().substr(0, 221)), (_Answer{0xb0010002, kReplyError}));
  EXPECT_THAT(Lines("zxlogcache"), ElementsAre(TooSmall(221)));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(TaskMgr, Record_IsRefused_WhenItsLengthIsHuge) {
  for (const uint32_t uiLength : {0xffffffffu, 0xffffffffu - 211, 0xffffffffu - 212, 0x80000000u, 11u}) {
    _TaskMgrRecord record;
    record.uiLength = uiLength;
    EXPECT_EQ(Hand(record.Bytes()), (_Answer{0xb0010002, kReplyError})) << uiLength;
    record.strData.clear();
    EXPECT_EQ(Hand(record.Bytes()), (_Answer{0xb0010002, kReplyError})) << uiLength;
  }
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(TaskMgr, Record_IsRefused_WhenMemoryIsOut) {
  m_queries.SetThrow(true);
  EXPECT_EQ(Hand(_TaskMgrRecord().Bytes()), (_Answer{0xb0010003, kReplyError}));
}

// --- What is taken.

TEST_F(TaskMgr, Record_MayBeLongerThanItsData) {
  EXPECT_EQ(Hand(_TaskMgrRecord().Bytes() + "ignored"), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].strMsg, "0123456789");
}

TEST_F(TaskMgr, Record_MayHaveNoData) {
  _TaskMgrRecord record;
  record.uiLength = 0;
  record.strData.clear();
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].strMsg, "");
}

TEST_F(TaskMgr, Record_MayHoldBinaryData) {
  _TaskMgrRecord record;
  record.strData = std::string("a\0b\xff", 4);
  record.uiLength = 4;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].strMsg, record.strData);
}

TEST_F(TaskMgr, Record_LogsItsDataOnly) {
  _TaskMgrRecord record;
  record.uiLength = 3;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  EXPECT_EQ(Lines("zxlogcache").back(), "1 zxagent DisposeTaskMgr u64DataId[1122334455667788] szData[012]");
}

TEST_F(TaskMgr, Record_MayHoldNegativeNumbers) {
  _TaskMgrRecord record;
  record.iPriv = -1;
  record.iMsgType = INT32_MIN;
  record.u64DataId = UINT64_MAX;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].iPriv, -1);
  EXPECT_EQ(m_queries.Messages()[0].iMsgType, INT32_MIN);
  EXPECT_EQ(m_queries.Messages()[0].u64DataId, UINT64_MAX);
}

TEST_F(TaskMgr, Record_TakesTheIdWithBraces) {
  _TaskMgrRecord record;
  record.strPlugin = std::string("{") + kPlugin + "}";
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  record.strPlugin = std::string("{") + kPlugin;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  record.strPlugin = "";
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(3));
  EXPECT_EQ(m_queries.Messages()[0].guid, GUID(kPlugin));
  EXPECT_EQ(m_queries.Messages()[1].guid, GUID(kPlugin));
  EXPECT_EQ(m_queries.Messages()[2].guid, GUID());
}

TEST_F(TaskMgr, Fields_EndAtTheirSize_WhenTheyHaveNoNul) {
  _TaskMgrRecord record;
  record.strPlugin = std::string(kPlugin) + std::string(64 - 36, '1');
  record.strCombo = std::string(64, 'c');
  record.strProduct = std::string(64, 'p');
  record.u64DataId = 0x4141414141414141ull;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].guid, GUID(kPlugin));
  EXPECT_EQ(m_queries.Messages()[0].strCombo, record.strCombo.c_str());
  EXPECT_EQ(m_queries.Messages()[0].strProduct, record.strProduct.c_str());
}

TEST_F(TaskMgr, Fields_DoNotRunIntoTheNext) {
  // A scan skips blanks: it would go on in the combo behind a field that is full of them.
  _TaskMgrRecord record;
  record.strPlugin = std::string(64, ' ');
  record.strCombo = kPlugin;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].guid, GUID());
}

TEST_F(TaskMgr, Fields_EndAtTheirFirstNul) {
  _TaskMgrRecord record;
  record.strCombo = std::string("One\0Two", 7);
  record.strProduct = std::string("\0Scan", 5);
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_EQ(m_queries.Messages()[0].strCombo, "One");
  EXPECT_EQ(m_queries.Messages()[0].strProduct, "");
}

TEST_F(TaskMgr, Record_MayStandAtAnyAddress) {
  const std::string strRecord = _TaskMgrRecord().Bytes();
  for (size_t uShift = 0; uShift < 8; ++uShift) {
    const std::string strShifted = std::string(uShift, 'x') + strRecord;
    EXPECT_EQ(Ask(20204, strShifted.data() + uShift, static_cast<unsigned int>(strRecord.size()),
                  GUID(kTaskMgrGuid)),
              (_Answer{0, kReplyOk}));
  }
  EXPECT_THAT(m_queries.Messages(), SizeIs(8));
}

TEST_F(TaskMgr, Record_MayBeAsLongAsTheBusTakes) {
  _TaskMgrRecord record;
  record.strData = std::string(kBusMaxBytes - 212, 'x');
  record.uiLength = kBusMaxBytes - 212;
  EXPECT_EQ(Hand(record.Bytes()), (_Answer{0, kReplyOk}));
  ASSERT_THAT(m_queries.Messages(), SizeIs(1));
  EXPECT_TRUE(m_queries.Messages()[0].strMsg == record.strData);
}

}  // namespace
