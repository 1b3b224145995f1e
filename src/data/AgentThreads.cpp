#include "data/AgentThreads.h"

#include "platform/os/ZxGauges.h"

namespace {

constinit CZxThreadGroup s_threads;

// The gauge of the group while the library is loaded.
class CThreadsGauge {
 public:
  CThreadsGauge() { s_threads.SetGauge(&m_gauge); }
  ~CThreadsGauge() { s_threads.SetGauge(nullptr); }
  CThreadsGauge(const CThreadsGauge&) = delete;
  CThreadsGauge& operator=(const CThreadsGauge&) = delete;

 private:
  CZxGauge m_gauge{"agent.threads"};
};

CThreadsGauge s_gauge;

}  // namespace

CZxThreadGroup& AgentThreads() {
  return s_threads;
}
