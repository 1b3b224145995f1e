// The machine-id file and the two formats of an older agent's id file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/AgentData.h"
#include "support/TempHome.h"

namespace {

constexpr size_t kOldIdMax = 62;  // bytes of a line that fits its buffer

void TryOldFile(const CTempHome& home, CAgentData& data, const char* pszFile, const CPString& strText) {
  home.WriteFile(pszFile, strText);
  CPString strMid1;
  CPString strMid2;
  if (data.ReadOldMid(strMid1, strMid2) != 0) {
    if (strMid1.IsEmpty() || strMid2.IsEmpty() || strMid1.GetLength() > kOldIdMax ||
        strMid2.GetLength() > kOldIdMax || home.Exists(pszFile))
      std::abort();
  } else if (!strMid1.IsEmpty() || !strMid2.IsEmpty() || !home.Exists(pszFile)) {
    std::abort();
  }
  home.Remove(pszFile);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CTempHome s_home;
  static CAgentData s_data(s_home.Path("root"));
  static const int s_iInit = s_data.Init(s_home.Root());
  const CPString strText(reinterpret_cast<const char*>(pData), uSize);

  s_home.WriteFile("etc/zxagent/inner/.mid", strText);
  _MidInfoData info;
  int bSave = 0;
  if (s_data.ReadMid(info, bSave) != 0) {
    // What was read is read again from what is saved.
    _MidInfoData again;
    int bSaveAgain = 0;
    if (s_data.SaveMid(info) == 0 || s_data.ReadMid(again, bSaveAgain) == 0 || bSaveAgain != 0 ||
        again.strMid1 != info.strMid1 || again.strMidLastDisk != info.strMidLastDisk ||
        again.strLastAllMac != info.strLastAllMac)
      std::abort();
  }
  TryOldFile(s_home, s_data, "root/var/zxcwpp/run/.mid", strText);
  TryOldFile(s_home, s_data, "root/etc/.veltepp.mid", strText);
  return s_iInit == 1 ? 0 : -1;
}
