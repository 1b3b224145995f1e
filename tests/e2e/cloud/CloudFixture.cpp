#include "CloudFixture.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

int OnPush(int iPcid, const char* pszText) {
  CCallbackRecorder::Get().Add("push " + std::to_string(iPcid) + " " + pszText);
  return 0;
}
int OnTconf(int iFlag, const char* pszText) {
  CCallbackRecorder::Get().Add("tconf " + std::to_string(iFlag) + " " + pszText);
  return 0;
}
int OnConnect(const char* pszIp, unsigned short wPort) {
  CCallbackRecorder::Get().Add(std::string("connect ") + pszIp + " " + std::to_string(wPort));
  return 0;
}
int OnDisconnect() {
  CCallbackRecorder::Get().Add("disconnect");
  return 0;
}
void OnLog(int iModule, int iLevel, const char* pszText) {
  EXPECT_EQ(iModule, kZxcloudLogModule);
  CCallbackRecorder::Get().Add("log " + std::to_string(iLevel) + " " + pszText);
}
int OnPoll(int iFlag, const char* pszText, int iLength) {
  EXPECT_EQ(strlen(pszText), static_cast<size_t>(iLength));
  CCallbackRecorder::Get().Add("poll " + std::to_string(iFlag) + " " + pszText);
  return 0;
}
int OnData(int iFlag, int iType, const char* pszText, int iLength) {
  EXPECT_EQ(iType, 0);
  EXPECT_EQ(strlen(pszText), static_cast<size_t>(iLength));
  CCallbackRecorder::Get().Add("data " + std::to_string(iFlag) + " " + pszText);
  return 0;
}

bool Begins(const std::string& str, const std::string& strPrefix) {
  return str.compare(0, strPrefix.size(), strPrefix) == 0;
}

}  // namespace

CCallbackRecorder& CCallbackRecorder::Get() {
  static CCallbackRecorder recorder;
  return recorder;
}

void CCallbackRecorder::Clear() {
  const std::lock_guard lock(m_mutex);
  m_events.clear();
  m_fnHook = nullptr;
}

void CCallbackRecorder::SetHook(std::function<void(const std::string&)> fnHook) {
  const std::lock_guard lock(m_mutex);
  m_fnHook = std::move(fnHook);
}

void CCallbackRecorder::Add(const std::string& strEvent) {
  std::function<void(const std::string&)> fnHook;
  {
    const std::lock_guard lock(m_mutex);
    fnHook = m_fnHook;
  }
  if (fnHook)
    fnHook(strEvent);
  const std::lock_guard lock(m_mutex);
  m_events.push_back(strEvent);
  m_cond.notify_all();
}

std::vector<std::string> CCallbackRecorder::Events() {
  const std::lock_guard lock(m_mutex);
  return m_events;
}

std::vector<std::string> CCallbackRecorder::Events(const std::string& strPrefix) {
  std::vector<std::string> list = Events();
  list.erase(
      std::remove_if(list.begin(), list.end(), [&](const auto& str) { return !Begins(str, strPrefix); }),
      list.end());
  return list;
}

bool CCallbackRecorder::Wait(const std::string& strPrefix, size_t uCount, uint32_t dwMs) {
  std::unique_lock lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [&] {
    return static_cast<size_t>(std::count_if(m_events.begin(), m_events.end(), [&](const auto& str) {
             return Begins(str, strPrefix);
           })) >= uCount;
  });
}

bool CCallbackRecorder::WaitLog(const std::string& strPart, uint32_t dwMs) {
  std::unique_lock lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [&] {
    return std::any_of(m_events.begin(), m_events.end(), [&](const auto& str) {
      return Begins(str, "log ") && str.find(strPart) != std::string::npos;
    });
  });
}

CCloudFixture::CCloudFixture()
    : m_ca(m_home.Root().Str(), "test"),
      m_cert(m_ca.Issue("server", {"localhost", "127.0.0.1"})),
      m_events(CCallbackRecorder::Get()) {
  m_events.Clear();
}

void CCloudFixture::TearDown() {
  if (HasFailure()) {
    for (const std::string& strEvent : m_events.Events())
      std::printf("  %s\n", strEvent.c_str());
    if (m_home.Exists("broker/mosquitto.log"))
      std::printf("%s\n", m_home.ReadFile("broker/mosquitto.log").c_str());
  }
  EXPECT_EQ(zxcloud_uninit(), 0u);
  m_events.Clear();
  zxcloud_set_otherconnaddr("");
}

void CCloudFixture::WriteConfigCa(const std::string& strTconf, const std::string& strCaFile,
                                  const std::string& strMore) {
  const std::string strText = "{\"tconf\":{\"tconf_url\":\"" + strTconf +
                              "\"},\"zxcloudconf\":{\"ca_file\":\"" + strCaFile + "\"" + strMore + "}}";
  m_home.WriteFile("etc/zxagent/inner/zxagent.json", strText);
}

void CCloudFixture::WriteConfig(const std::string& strTconf, const std::string& strMore) {
  WriteConfigCa(strTconf, m_ca.File(), strMore);
}

std::string CCloudFixture::TconfText(const std::string& strShort, const std::string& strLong) {
  return "{\"v\":1,\"pcid\":\"veltcwpp,zxpmaint,7\",\"short\":\"" + strShort + "\",\"long\":\"" + strLong +
         "\",\"spread_sec\":0,\"keepalive_sec\":10}";
}

void CCloudFixture::ServeTconf(CTestHttps& https, const std::string& strShort, const std::string& strLong) {
  https.Answer("/v1/tconf", [strText = TconfText(strShort, strLong)](const _TestRequest&) {
    return _TestReply{200, strText, {}};
  });
}

uint32_t CCloudFixture::Init(bool bOnlyShort) {
  EXPECT_EQ(zxcloud_setopt(bOnlyShort ? "mid=m-1:m2=second:cloudtcp_disable=1"
                                      : "mid=m-1:m2=second:cloudtcp_disable=0"),
            0u);
  EXPECT_EQ(zxcloud_setopt("platid=3:localip=fe80::1:disable_hb=0"), 0u);
  const std::string strPath = m_home.Path("etc/zxagent/inner/zxagent.json").Str();
  const std::string strChannel = "channel 9";
  zxcloud_record record{
      strPath.c_str(), strChannel.c_str(), OnPush, OnTconf, OnConnect, OnDisconnect, OnLog, OnPoll, OnData};
  return zxcloud_init(&record);
}

std::string CCloudFixture::Option(const std::string& strKey) {
  char szText[2048] = "";
  EXPECT_EQ(zxcloud_getopt(szText, sizeof(szText)), 0u);
  const std::string strText = ":" + std::string(szText);
  const size_t uKey = strText.find(":" + strKey + "=");
  if (uKey == std::string::npos)
    return "(none)";
  const size_t uValue = uKey + strKey.size() + 2;
  return strText.substr(uValue, strText.find(':', uValue) - uValue);
}
