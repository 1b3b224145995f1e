// The PCID text against a reading of its grammar that shares no code with the product's.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <sstream>

#include "data/AgentData.h"

namespace {

std::string Lower(std::string str) {
  for (char& ch : str)
    ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
  return str;
}

struct _Model {
  std::map<int, std::pair<std::string, std::string>> ids;
  std::map<std::string, int> keys;
};

_Model ReadModel(const std::string& strText) {
  _Model model;
  std::istringstream text(strText);
  for (std::string strPiece; std::getline(text, strPiece, '|');) {
    std::istringstream piece(strPiece);
    std::string strProduct;
    std::string strCombo;
    // A getline that ends at the end of the text has not seen its comma.
    if (!std::getline(piece, strProduct, ',') || piece.eof() || !std::getline(piece, strCombo, ',') ||
        piece.eof())
      continue;
    long i64Id = 0;
    if (!(piece >> i64Id) || strProduct.empty() || strCombo.empty() || i64Id < 1 || i64Id > 2147483647L)
      continue;
    model.ids[static_cast<int>(i64Id)] = {strProduct, strCombo};
    model.keys[Lower(strProduct + "/" + strCombo)] = static_cast<int>(i64Id);
  }
  return model;
}

void CheckAgainstModel(const std::string& strText) {
  CAgentData data;
  RC_ASSERT(data.SetPcidData(CPString(strText), 0) == 0u);
  const _Model model = ReadModel(strText);
  for (const auto& [iId, names] : model.ids) {
    CPString strProduct;
    CPString strCombo;
    RC_ASSERT(data.GetProductComboByID(iId, strProduct, strCombo) == 1);
    RC_ASSERT(strProduct == CPString(names.first));
    RC_ASSERT(strCombo == CPString(names.second));
    int iBack = 0;
    RC_ASSERT(data.GetIDByProductCombo(strProduct, strCombo, iBack) == 1);
    RC_ASSERT(iBack == model.keys.at(Lower(names.first + "/" + names.second)));
  }
  for (int iId = 2; iId < 1000; ++iId) {
    CPString strProduct;
    CPString strCombo;
    RC_ASSERT(data.GetProductComboByID(iId, strProduct, strCombo) == static_cast<int>(model.ids.count(iId)));
  }
}

}  // namespace

RC_GTEST_PROP(PcidText, AnyTextLoadsAsItsGrammarSays, ()) {
  const auto text = *rc::gen::container<std::string>(
      rc::gen::element('a', 'B', 'b', '|', ',', ',', '1', '0', '9', '-', ' ', '/'));
  CheckAgainstModel(text);
}

RC_GTEST_PROP(PcidText, WellFormedTablesLoadWhole, ()) {
  const auto name =
      rc::gen::nonEmpty(rc::gen::container<std::string>(rc::gen::element('a', 'A', 'b', 'B', '.')));
  const auto entries = *rc::gen::container<std::vector<std::tuple<std::string, std::string, int>>>(
      rc::gen::tuple(name, name, rc::gen::inRange(1, 50)));
  std::string strText;
  for (const auto& [strProduct, strCombo, iId] : entries)
    strText += (strText.empty() ? "" : "|") + strProduct + "," + strCombo + "," + std::to_string(iId);
  RC_ASSERT(ReadModel(strText).ids.empty() == entries.empty());
  CheckAgainstModel(strText);
}
