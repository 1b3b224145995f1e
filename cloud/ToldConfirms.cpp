#include "ToldConfirms.h"

#include <utility>

namespace zxcloudd {

void CToldConfirms::Told(int iMid, _Confirm confirm) {
  if (HasRoom())
    m_mapTold.insert_or_assign(iMid, std::move(confirm));
}

void CToldConfirms::ConnectionEnded() {
  for (auto& told : m_mapTold) {
    if (m_listAgain.size() == kMost)
      m_listAgain.pop_front();
    m_listAgain.push_back(std::move(told.second));
  }
  m_mapTold.clear();
}

bool CToldConfirms::TakeAgain(_Confirm& confirm) {
  if (m_listAgain.empty())
    return false;
  confirm = std::move(m_listAgain.front());
  m_listAgain.pop_front();
  return true;
}

}  // namespace zxcloudd
