#include "data/AgentThreads.h"

namespace {

constinit CZxThreadGroup s_threads;

}  // namespace

CZxThreadGroup& AgentThreads() {
  return s_threads;
}
