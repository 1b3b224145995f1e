#include "support/FakeCloud.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

std::string Text(const char* psz) {
  return psz == nullptr ? std::string() : std::string(psz);
}

std::string Bytes(const char* psz, int iLength) {
  return psz == nullptr || iLength <= 0 ? std::string() : std::string(psz, static_cast<size_t>(iLength));
}

}  // namespace

CFakeCloud& CFakeCloud::Get() {
  static CFakeCloud cloud;
  return cloud;
}

void CFakeCloud::Reset() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_calls.clear();
  m_results.clear();
  m_queued.clear();
  m_hooks.clear();
  m_strGetopt = "fake=1";
  m_bInitialised = false;
  m_strConfigPath.clear();
  m_strChannelId.clear();
  m_record = zxcloud_record{};
}

void CFakeCloud::SetResult(ECloudCall eCall, uint32_t uiResult) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_results[eCall] = uiResult;
}

void CFakeCloud::QueueResults(ECloudCall eCall, const std::vector<uint32_t>& results) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto& queued = m_queued[eCall];
  queued.insert(queued.end(), results.begin(), results.end());
}

void CFakeCloud::SetHook(ECloudCall eCall, Hook hook) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_hooks[eCall] = std::move(hook);
}

void CFakeCloud::SetGetoptText(const std::string& strText) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_strGetopt = strText;
}

std::vector<_CloudCall> CFakeCloud::Calls() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls;
}

std::vector<_CloudCall> CFakeCloud::Calls(ECloudCall eCall) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<_CloudCall> calls;
  std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(calls),
               [eCall](const _CloudCall& call) { return call.eCall == eCall; });
  return calls;
}

size_t CFakeCloud::Count(ECloudCall eCall) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<size_t>(std::count_if(m_calls.begin(), m_calls.end(),
                                           [eCall](const _CloudCall& call) { return call.eCall == eCall; }));
}

std::vector<std::string> CFakeCloud::Texts(ECloudCall eCall) const {
  std::vector<std::string> texts;
  for (const _CloudCall& call : Calls(eCall))
    texts.push_back(call.strText);
  return texts;
}

bool CFakeCloud::WaitCount(ECloudCall eCall, size_t uCount, std::chrono::milliseconds deadline) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_cond.wait_for(lock, deadline, [&] {
    return static_cast<size_t>(std::count_if(m_calls.begin(), m_calls.end(), [eCall](const _CloudCall& call) {
             return call.eCall == eCall;
           })) >= uCount;
  });
}

bool CFakeCloud::IsInitialised() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bInitialised;
}

std::string CFakeCloud::ConfigPath() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_strConfigPath;
}

std::string CFakeCloud::ChannelId() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_strChannelId;
}

zxcloud_record CFakeCloud::Record() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_record;
}

int CFakeCloud::Fire(const std::function<int(const zxcloud_record&)>& fnCall) {
  zxcloud_record record;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bInitialised)
      return kNotFired;
    record = m_record;
  }
  int iRet = 0;
  std::thread([&] { iRet = fnCall(record); }).join();
  return iRet;
}

int CFakeCloud::FirePush(int iPcid, const char* pszText) {
  return Fire([=](const zxcloud_record& record) { return record.push(iPcid, pszText); });
}

int CFakeCloud::FireTconf(int iFlag, const char* pszText) {
  return Fire([=](const zxcloud_record& record) { return record.tconf(iFlag, pszText); });
}

int CFakeCloud::FireConnect(const char* pszIp, unsigned short wPort) {
  return Fire([=](const zxcloud_record& record) { return record.connect(pszIp, wPort); });
}

int CFakeCloud::FireDisconnect() {
  return Fire([](const zxcloud_record& record) { return record.disconnect(); });
}

int CFakeCloud::FireLog(int iModule, int iLevel, const char* pszText) {
  return Fire([=](const zxcloud_record& record) {
    record.log(iModule, iLevel, pszText);
    return 0;
  });
}

int CFakeCloud::FirePoll(int iFlag, const char* pszText, int iLength) {
  return Fire([=](const zxcloud_record& record) { return record.poll(iFlag, pszText, iLength); });
}

int CFakeCloud::FireData(int iFlag, int iType, const char* pszText, int iLength) {
  return Fire([=](const zxcloud_record& record) { return record.data(iFlag, iType, pszText, iLength); });
}

uint32_t CFakeCloud::OnCall(_CloudCall call) {
  Hook hook;
  uint32_t uiResult = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(call);
    m_cond.notify_all();
    auto& queued = m_queued[call.eCall];
    if (m_hooks.count(call.eCall) != 0 && m_hooks[call.eCall]) {
      hook = m_hooks[call.eCall];
    } else if (!queued.empty()) {
      uiResult = queued.front();
      queued.erase(queued.begin());
    } else {
      uiResult = m_results[call.eCall];
    }
  }
  return hook ? hook(call) : uiResult;
}

uint32_t CFakeCloud::OnInit(const zxcloud_record* pRecord) {
  _CloudCall call;
  call.strText = Text(pRecord->config_path);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_strConfigPath = call.strText;
    m_strChannelId = Text(pRecord->channel_id);
    m_record = *pRecord;
    m_record.config_path = nullptr;
    m_record.channel_id = nullptr;
  }
  const uint32_t uiResult = OnCall(call);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_bInitialised = uiResult == 0;
  return uiResult;
}

uint32_t CFakeCloud::OnUninit() {
  _CloudCall call;
  call.eCall = ECloudCall::Uninit;
  const uint32_t uiResult = OnCall(call);
  std::lock_guard<std::mutex> lock(m_mutex);
  if (uiResult == 0)
    m_bInitialised = false;
  return uiResult;
}

uint32_t CFakeCloud::OnGetopt(char* pszBuffer, int iCapacity) {
  _CloudCall call;
  call.eCall = ECloudCall::Getopt;
  call.iLength = iCapacity;
  const uint32_t uiResult = OnCall(call);
  std::lock_guard<std::mutex> lock(m_mutex);
  if (uiResult == 0 && pszBuffer != nullptr && iCapacity > 0) {
    const size_t uLength = std::min(m_strGetopt.size(), static_cast<size_t>(iCapacity));
    std::memcpy(pszBuffer, m_strGetopt.data(), uLength);
    pszBuffer[uLength] = 0;
  }
  return uiResult;
}

extern "C" {

uint32_t zxcloud_init(const zxcloud_record* record) {
  return CFakeCloud::Get().OnInit(record);
}

uint32_t zxcloud_uninit(void) {
  return CFakeCloud::Get().OnUninit();
}

uint32_t zxcloud_setopt(const char* text) {
  return CFakeCloud::Get().OnCall({ECloudCall::Setopt, Text(text)});
}

uint32_t zxcloud_getopt(char* buffer, int capacity) {
  return CFakeCloud::Get().OnGetopt(buffer, capacity);
}

uint32_t zxcloud_set_otherconnaddr(const char* address) {
  return CFakeCloud::Get().OnCall({ECloudCall::SetOtherConnAddr, Text(address)});
}

uint32_t zxcloud_tconf_check(const char* address) {
  return CFakeCloud::Get().OnCall({ECloudCall::TconfCheck, Text(address)});
}

uint32_t zxcloud_send(const char* data, int length, int priority) {
  return CFakeCloud::Get().OnCall({ECloudCall::Send, Bytes(data, length), length, priority});
}

uint32_t zxcloud_send_sync(const char* data, int length, int priority, int timeout_ms) {
  return CFakeCloud::Get().OnCall({ECloudCall::SendSync, Bytes(data, length), length, priority, timeout_ms});
}

uint32_t zxcloud_send_pollmsg(const char* data, int length) {
  return CFakeCloud::Get().OnCall({ECloudCall::SendPollmsg, Bytes(data, length), length});
}

}  // extern "C"
