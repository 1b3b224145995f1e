// Holds back pthread_cancel for a scope: cancellation that arrives meanwhile acts at the next cancellation
// point behind it. For code whose system calls must complete as one step, and for destructors, where an
// unwinding cancellation would end the process. Nests.
#pragma once

#include <pthread.h>

class CNoCancel {
 public:
  CNoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iOld); }
  ~CNoCancel() {
    int iIgnored = 0;
    pthread_setcancelstate(m_iOld, &iIgnored);
  }
  CNoCancel(const CNoCancel&) = delete;
  CNoCancel& operator=(const CNoCancel&) = delete;

 private:
  int m_iOld = PTHREAD_CANCEL_ENABLE;
};
