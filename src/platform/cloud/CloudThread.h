// A joined thread with a name and a small stack, all signals blocked so that they go to the host's threads.
#pragma once

#include <pthread.h>

#include <functional>

namespace zxcloud {

class CCloudThread {
 public:
  CCloudThread() = default;
  ~CCloudThread() { Join(); }
  CCloudThread(const CCloudThread&) = delete;
  CCloudThread& operator=(const CCloudThread&) = delete;

  // pszName: a literal of at most 15 characters. fnBody must not throw. Returns an error number, 0 = started.
  int Start(const char* pszName, std::function<void()> fnBody);
  void Join();  // waits for the body to return; again does nothing

 private:
  static void* Entry(void* pThis);

  pthread_t m_hThread{};
  bool m_bStarted = false;
  const char* m_pszName = "";
  std::function<void()> m_fnBody;
};

}  // namespace zxcloud
