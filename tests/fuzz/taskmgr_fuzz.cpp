// A task manager's record, in memory that ends where it does. What is passed on lies inside it.
#include <cstdlib>
#include <vector>

#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "receive/AgentReceive.h"

namespace {

class CChecks final : public IAgentQueries {
 public:
  CChecks(const unsigned char* pData, size_t uSize)
      : m_pData(reinterpret_cast<const char*>(pData)), m_uSize(uSize) {}

  uint32_t SetCloudAddr(CPString) override { return 0; }
  uint32_t TestCloudAddr(CPString) override { return 0; }
  uint32_t TestLbCloudAddr(CPString) override { return 0; }
  CPString GetConnectData() override { return {}; }
  CPString GetClientReady() override { return {}; }
  CPString GetLbData() override { return {}; }
  uint32_t NotifyAuthChange() override { return 0; }
  int GetTaskmgrGuidList(CPString&) override { return 0; }
  bool DisposePolicy(const char*) override { return false; }
  uint32_t SendMsg(unsigned long long u64DataId, int, int, const GUID&, CPString strProduct,
                   CPString strCombo, const char* pszMsg, unsigned int uiLen, unsigned int uiKind) override {
    if (uiKind != 2 || strProduct.GetLength() > 64 || strCombo.GetLength() > 64 || pszMsg != m_pData + 212 ||
        212 + size_t{uiLen} > m_uSize)
      std::abort();
    return static_cast<uint32_t>(u64DataId % 2);
  }

 private:
  const char* m_pData;
  size_t m_uSize;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::vector<unsigned char> data(pData, pData + uSize);
  CChecks checks(data.data(), data.size());
  SetAgentQueries(&checks);
  CPString strReply;
  const uint32_t uiStatus =
      CAgentReceive::m_AgentReceive.DisposeTaskMgr(GUID(kTaskMgrGuid), data.empty() ? nullptr : data.data(),
                                                   static_cast<unsigned int>(data.size()), strReply);
  SetAgentQueries(nullptr);
  if ((uiStatus == 0) != (strReply == "agent_reply_okok"))
    std::abort();
  return 0;
}
