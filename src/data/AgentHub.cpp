#include "data/AgentHub.h"

#include <atomic>

namespace {

constinit std::atomic<IAgentHub*> s_pHub{nullptr};
constinit std::atomic<IAgentQueries*> s_pQueries{nullptr};

}  // namespace

IAgentHub* AgentHub() {
  return s_pHub.load(std::memory_order_acquire);
}

IAgentHub* SetAgentHub(IAgentHub* pHub) {
  return s_pHub.exchange(pHub, std::memory_order_acq_rel);
}

IAgentQueries* AgentQueries() {
  return s_pQueries.load(std::memory_order_acquire);
}

IAgentQueries* SetAgentQueries(IAgentQueries* pQueries) {
  return s_pQueries.exchange(pQueries, std::memory_order_acq_rel);
}
