#include "zxctl/local/Routes.h"

#include <cstdio>
#include <vector>

#include "data/AgentData.h"
#include "zxctl/Answers.h"
#include "zxctl/Commands.h"
#include "zxctl/Table.h"

namespace zxctl {

namespace {

struct _Row {
  std::string strCommand, strGuid, strProduct, strCombo, strWhy;
};

// A route's product and combo count only together; both empty mean every command of that name.
bool RouteTakes(const _GuidProductCombo& gpc, const _RouteQuestion& question) {
  const bool bAny = gpc.strProduct.IsEmpty() && gpc.strCombo.IsEmpty();
  const bool bAsked = !question.strProduct.empty() || !question.strCombo.empty();
  return bAny || !bAsked ||
         (gpc.strProduct.CompareNoCase(question.strProduct) == 0 &&
          gpc.strCombo.CompareNoCase(question.strCombo) == 0);
}

std::vector<_Row> FromRouteFile(const commandRouteMap& mapRoute, const _RouteQuestion& question) {
  const CPString strAsked = CPString(question.strCommand).Lower();
  std::vector<_Row> listRows;
  for (const auto& [strCommand, gpcList] : mapRoute) {
    if (!strAsked.IsEmpty() && strCommand != strAsked)
      continue;
    for (const _GuidProductCombo& gpc : gpcList) {
      if (RouteTakes(gpc, question))
        listRows.push_back({strCommand.Str(), gpc.strGuid.Str(), gpc.strProduct.Str(), gpc.strCombo.Str(),
                            "route of the command"});
    }
  }
  return listRows;
}

// What no route names goes to the one component of the command's product and combo.
std::vector<_Row> FromComponents(const productComboToGuidMap& mapGuids, const _RouteQuestion& question) {
  const CPString strKey = CPString(question.strProduct + "/" + question.strCombo).Lower();
  const bool bAsked = !question.strProduct.empty() || !question.strCombo.empty();
  std::vector<_Row> listRows;
  for (const auto& [strPair, guids] : mapGuids) {
    if (bAsked && strPair != strKey)
      continue;
    const size_t uSlash = strPair.Find("/");
    for (const CPString& strGuid : guids)
      listRows.push_back({"*", strGuid.Str(), strPair.Left(uSlash).Str(),
                          uSlash == CPString::npos ? "" : strPair.Mid(uSlash + 1).Str(),
                          guids.GetCount() == 1 ? "component of product and combo"
                                                : "several components of one pair: the command is refused"});
  }
  return listRows;
}

void PrintRows(const std::vector<_Row>& listRows, bool bJson) {
  if (bJson) {
    CPJsonParse json;
    json.CreateJson();
    const HJsonNode hRoutes = json.AddNodeArray(nullptr, "routes");
    for (const _Row& row : listRows) {
      const HJsonNode hRow = json.InsertObjectToArray(hRoutes);
      json.AddNode(hRow, "command", row.strCommand.c_str());
      json.AddNode(hRow, "guid", row.strGuid.c_str());
      json.AddNode(hRow, "product", row.strProduct.c_str());
      json.AddNode(hRow, "combo", row.strCombo.c_str());
      json.AddNode(hRow, "why", row.strWhy.c_str());
    }
    CPString strText;
    json.GetJsonStr(strText, true);
    Print(strText.Str() + "\n");
    return;
  }
  std::vector<std::vector<std::string>> table{{"COMMAND", "COMPONENT", "PRODUCT", "COMBO", "WHY"}};
  for (const _Row& row : listRows)
    table.push_back({row.strCommand, row.strGuid, row.strProduct.empty() ? "any" : row.strProduct,
                     row.strCombo.empty() ? "any" : row.strCombo, row.strWhy});
  Print(FormatTable(table));
}

}  // namespace

int Routes(const std::string& strHome, const _RouteQuestion& question, bool bJson) {
  CAgentData data;
  data.Init(strHome);
  commandRouteMap mapRoute;
  productComboToGuidMap mapGuids;
  data.GetCommandProductMap(mapRoute, mapGuids);
  data.Uninit();
  std::vector<_Row> listRows = FromRouteFile(mapRoute, question);
  const bool bWhole = question.strCommand.empty();
  if (bWhole || listRows.empty()) {
    for (_Row& row : FromComponents(mapGuids, question))
      listRows.push_back(std::move(row));
  }
  PrintRows(listRows, bJson);
  if (!listRows.empty() || bWhole)
    return kExitOk;
  std::fprintf(
      stderr,
      "zxctl: nobody gets %s: no entry in etc/zxagent/commandroute.json names it, and no installed component "
      "has the product and combo asked for\n",
      question.strCommand.c_str());
  return kExitFailed;
}

}  // namespace zxctl
