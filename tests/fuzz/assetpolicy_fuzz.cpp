// An asset-collection policy: every command that comes out of it is a whole document, and nothing is written
// outside the folder of the copies.
#include <cstdlib>
#include <filesystem>
#include <string>

#include "asset/AgentAsset.h"
#include "data/AgentHub.h"
#include "platform/doc/PJsonParse.h"
#include "support/TempHome.h"

namespace {

class CCheckingHub final : public IAgentHub {
 public:
  int SendPushMsgData(unsigned long long u64DataId, const CPString&, const CPString&, const CPString&,
                      const CPString&, const CPString& strMsg) override {
    zxtools::CPJsonParse json;
    if (json.LoadBuffer(strMsg.data(), strMsg.GetLength()) == 0 || json.GetNode("ID") == nullptr)
      std::abort();
    return static_cast<int>(u64DataId % 2);
  }
  uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData*) override { return 0; }
  int IsConnect() override { return 0; }
  uint32_t SendLogCacheResult(int, unsigned long long, int, int, CPString, CPString) override { return 0; }
  uint32_t SendTaskMgrResult(int, unsigned long long, int, int, CPString, CPString) override { return 0; }
  uint32_t ZxcloudSendMsg(unsigned long long, const CPString&, const CPString&, int, int,
                          const CPString&) override {
    return 0;
  }
};

struct CTarget {
  CTempHome home;
  CCheckingHub hub;
  CAgentAsset asset;
  std::string strCopies;

  CTarget() : strCopies(home.Root().Str() + "data/policy/assetcollection") {
    asset.Init(home.Root());
    SetAgentHub(&hub);
  }
  ~CTarget() { SetAgentHub(nullptr); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CTarget s_target;
  const std::string strPolicy(reinterpret_cast<const char*>(pData), uSize);
  s_target.asset.ParseAssetPolicy(uSize, "id", strPolicy.c_str());
  for (const auto& entry : std::filesystem::recursive_directory_iterator(s_target.home.Root().Str()))
    if (!entry.is_directory() && entry.path().parent_path() != s_target.strCopies)
      std::abort();
  std::error_code error;
  std::filesystem::remove_all(s_target.strCopies, error);
  return 0;
}
