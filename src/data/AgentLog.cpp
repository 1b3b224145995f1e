#include "data/AgentLog.h"

constinit std::atomic<HLog> g_hLogMain{nullptr};
constinit std::atomic<HLog> g_hLogFlow{nullptr};
constinit std::atomic<HLog> g_hLogCache{nullptr};
constinit std::atomic<HLog> g_hLogZxcloud{nullptr};
