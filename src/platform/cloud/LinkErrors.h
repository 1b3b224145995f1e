// The last thing that went wrong on the link, for whoever asks how it does. Threads: any. Blocking: never.
#pragma once

#include <string>
#include <utility>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

class CLinkErrors {
 public:
  void Note(std::string strError) TS_EXCLUDES(m_cs) {
    CCritLock lock(m_cs);
    m_strLast.swap(strError);
  }
  std::string Last() TS_EXCLUDES(m_cs) {
    CCritLock lock(m_cs);
    return m_strLast;
  }

 private:
  CCritSec m_cs;
  std::string m_strLast TS_GUARDED_BY(m_cs);
};

}  // namespace zxcloud
