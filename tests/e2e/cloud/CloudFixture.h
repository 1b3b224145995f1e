// The library as its host sees it, with everything its callbacks report, and a cloud to talk to.
// The library and its callbacks are one per process, so is the recorder; a fixture clears both.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/cloud/zxcloud.h"
#include "support/CloudServers.h"
#include "support/TempHome.h"

// One callback: "push 7 {...}", "tconf 2 ...", "connect ip port", "disconnect", "poll 0 ...", "data 1 ...",
// "log 2 ...".
class CCallbackRecorder {
 public:
  static CCallbackRecorder& Get();
  void Clear();
  void Add(const std::string& strEvent);
  std::vector<std::string> Events();
  // Of events that begin with strPrefix.
  std::vector<std::string> Events(const std::string& strPrefix);
  bool Wait(const std::string& strPrefix, size_t uCount = 1, uint32_t dwMs = 10000);
  bool WaitLog(const std::string& strPart, uint32_t dwMs = 10000);
  // Called on the library's thread for every event, before it is recorded.
  void SetHook(std::function<void(const std::string&)> fnHook);

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<std::string> m_events;
  std::function<void(const std::string&)> m_fnHook;
};

class CCloudFixture : public ::testing::Test {
 protected:
  CCloudFixture();
  void TearDown() override;  // before the servers of a test go: they wait for their connections

  // zxagent.json with the test's CA; strMore is added to "zxcloudconf" (", \"key\": value").
  void WriteConfig(const std::string& strTconf, const std::string& strMore = "");
  void WriteConfigCa(const std::string& strTconf, const std::string& strCaFile,
                     const std::string& strMore = "");
  // The answer to /v1/tconf.
  static std::string TconfText(const std::string& strShort, const std::string& strLong);
  void ServeTconf(CTestHttps& https, const std::string& strShort, const std::string& strLong);
  // Options, then zxcloud_init.
  uint32_t Init(bool bOnlyShort = false);
  std::string Option(const std::string& strKey);  // of zxcloud_getopt

  CTempHome m_home;
  CTestCa m_ca;
  _CertFiles m_cert;  // for "localhost" and 127.0.0.1
  CCallbackRecorder& m_events;
};

inline std::string Local(uint16_t wPort) {
  return "127.0.0.1:" + std::to_string(wPort);
}
