// Link-time stand-in for the cloud library: defines the zxcloud_* functions, records every call, answers what
// the test set, and fires the callbacks of the record it was initialised with, from a thread of its own.
// One per process, as the library; a fixture resets it before each test. Any thread may call anything here.
// A call that blocks in a hook holds no lock of the fake.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/cloud/zxcloud.h"

enum class ECloudCall {
  Init,
  Uninit,
  Setopt,
  Getopt,
  SetOtherConnAddr,
  TconfCheck,
  Send,
  SendSync,
  SendPollmsg
};

struct _CloudCall {
  ECloudCall eCall = ECloudCall::Init;
  std::string strText;  // option, address or data, byte for byte; the configuration path of Init
  int iLength = 0;      // as passed: data length, capacity of Getopt
  int iPriority = -1;
  int iTimeoutMs = -1;
};

class CFakeCloud {
 public:
  using Hook = std::function<uint32_t(const _CloudCall&)>;

  static CFakeCloud& Get();
  void Reset();  // forgets calls, results, hooks and the initialisation

  // What a function answers: a hook when one is set, else the next queued result, else the standing one (0).
  void SetResult(ECloudCall eCall, uint32_t uiResult);
  void QueueResults(ECloudCall eCall, const std::vector<uint32_t>& results);
  void SetHook(ECloudCall eCall, Hook hook);
  void SetGetoptText(const std::string& strText);  // cut to the capacity that the caller gives

  std::vector<_CloudCall> Calls() const;
  std::vector<_CloudCall> Calls(ECloudCall eCall) const;
  size_t Count(ECloudCall eCall) const;
  std::vector<std::string> Texts(ECloudCall eCall) const;
  // False when the deadline passes first.
  bool WaitCount(ECloudCall eCall, size_t uCount,
                 std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;

  bool IsInitialised() const;
  std::string ConfigPath() const;  // of the last Init
  std::string ChannelId() const;
  zxcloud_record Record() const;  // callbacks of the last Init; its two texts are null

  // Run one callback on the fake's own thread and wait until it returned. Its result (0 for the log
  // callback), or kNotFired while the library is not initialised.
  static constexpr int kNotFired = -1000;
  int FirePush(int iPcid, const char* pszText);
  int FireTconf(int iFlag, const char* pszText);
  int FireConnect(const char* pszIp, unsigned short wPort);
  int FireDisconnect();
  int FireLog(int iModule, int iLevel, const char* pszText);
  int FirePoll(int iFlag, const char* pszText, int iLength);
  int FireData(int iFlag, int iType, const char* pszText, int iLength);

  // Called by the C functions.
  uint32_t OnCall(_CloudCall call);
  uint32_t OnInit(const zxcloud_record* pRecord);
  uint32_t OnUninit();
  uint32_t OnGetopt(char* pszBuffer, int iCapacity);

 private:
  CFakeCloud() = default;
  int Fire(const std::function<int(const zxcloud_record&)>& fnCall);

  mutable std::mutex m_mutex;
  mutable std::condition_variable m_cond;
  std::vector<_CloudCall> m_calls;
  std::map<ECloudCall, uint32_t> m_results;
  std::map<ECloudCall, std::vector<uint32_t>> m_queued;
  std::map<ECloudCall, Hook> m_hooks;
  std::string m_strGetopt = "fake=1";
  bool m_bInitialised = false;
  std::string m_strConfigPath;
  std::string m_strChannelId;
  zxcloud_record m_record{};
};
