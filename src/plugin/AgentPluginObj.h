// The agent's plug-in object: the table of eight entry points that the host calls by position, each a thin
// shell round CAgentMgr. The entry points hold no state of an object, so every table behaves alike.
// Threads: one host thread makes all calls. What the manager's own steps achieved is in the log only.
#pragma once

#include <atomic>

#include "plugin/zxplugin.h"

struct CAgentPluginObj : CPluginObj {
  CAgentPluginObj();

  static int Initialize(void* pInitParam);
  static void Uninitialize();
  static int Start();
  static int Stop();
  static int GetStatus();
  static int GetCtx(void* pData);  // always 0: the agent hands out no context
  static void SetCtx(void* pData);
  static int Info(void* pData);  // 0, or -1 for null

 private:
  // The step that the host performed last, whatever came of it: 0 loaded, 1 initialised, 2 started,
  // 3 stopped, 4 uninitialised.
  static std::atomic<int> m_iStatus;
};
static_assert(sizeof(CAgentPluginObj) == sizeof(CPluginObj));
