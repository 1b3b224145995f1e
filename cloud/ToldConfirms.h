// Confirmations that were published and that the broker has not acknowledged. A connection may end between
// the broker's word for an upload and the machine's: the upload does not come again, so the machine would
// wait until it repeats by itself. What is held here is told again over the next connection. One thread.
#pragma once

#include <cstddef>
#include <deque>
#include <unordered_map>

#include "CloudService.h"

namespace zxcloudd {

class CToldConfirms {
 public:
  static constexpr size_t kMost = 4096;  // what has no place is not told again; the machine repeats it

  bool HasRoom() const { return m_mapTold.size() < kMost; }
  void Told(int iMid, _Confirm confirm);  // iMid: the library's, of this connection
  void Acknowledged(int iMid) { m_mapTold.erase(iMid); }
  void ConnectionEnded();  // all of it is to be told again
  bool TakeAgain(_Confirm& confirm);

 private:
  std::unordered_map<int, _Confirm> m_mapTold;
  std::deque<_Confirm> m_listAgain;
};

}  // namespace zxcloudd
