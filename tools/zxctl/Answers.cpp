#include "Answers.h"

#include <time.h>

#include <cstdio>

#include "Commands.h"

namespace zxctl {

std::string TextOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName) {
  CPString strValue;
  const HJsonNode hNode = json.GetNode(hParent, pszName);
  if (hNode == nullptr || !CPJsonParse::GetValue(hNode, strValue))
    return {};
  return strValue.Str();
}

int64_t NumberOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName) {
  double dValue = 0;
  const HJsonNode hNode = json.GetNode(hParent, pszName);
  return hNode != nullptr && CPJsonParse::GetDoubleValue(hNode, dValue) ? static_cast<int64_t>(dValue) : 0;
}

std::vector<HJsonNode> ItemsOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName) {
  std::vector<HJsonNode> listItems;
  const HJsonNode hArray = json.GetNode(hParent, pszName);
  if (hArray != nullptr)
    json.GetAllNode(hArray, listItems);
  return listItems;
}

int64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void Print(const std::string& str) {
  std::fwrite(str.data(), 1, str.size(), stdout);
}

// kExitOk when the answer is 200 and JSON; otherwise says what is wrong.
int CheckAnswer(const _Answer& answer, CPJsonParse& json) {
  if (answer.iStatus == 0) {
    std::fprintf(stderr, "zxctl: the cloud does not answer: %s\n", answer.strError.c_str());
    return kExitUnreachable;
  }
  const bool bJson = json.LoadBuffer(answer.strBody.data(), answer.strBody.size()) != 0;
  if (answer.iStatus == 200 && bJson)
    return kExitOk;
  const std::string strWhy = bJson ? TextOf(json, nullptr, "error") : "";
  std::fprintf(stderr, "zxctl: the cloud answers %d: %s\n", answer.iStatus, strWhy.c_str());
  return kExitFailed;
}

void PrintForeign(const std::string& str) {
  std::string strClean = str;
  for (char& ch : strClean) {
    if ((static_cast<unsigned char>(ch) < 0x20 && ch != '\n' && ch != '\t') || ch == 0x7f)
      ch = '?';
  }
  if (!strClean.empty() && strClean.back() != '\n')
    strClean += '\n';
  Print(strClean);
}

}  // namespace zxctl
