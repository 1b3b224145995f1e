#include "support/FakeMid.h"

#include <algorithm>
#include <cstring>

#include "platform/mid/zxmid.h"

CFakeMid& CFakeMid::Instance() {
  static CFakeMid fake;
  return fake;
}

void CFakeMid::Reset() {
  const std::lock_guard lock(m_mutex);
  m_texts.clear();
  m_results.clear();
  m_calls.clear();
  m_pfnLog = nullptr;
  m_bClean = true;
}

void CFakeMid::SetText(const std::string& strFunction, const std::string& strText) {
  const std::lock_guard lock(m_mutex);
  m_texts[strFunction] = strText;
}

void CFakeMid::SetResult(const std::string& strFunction, int iResult) {
  const std::lock_guard lock(m_mutex);
  m_results[strFunction] = iResult;
}

std::vector<std::string> CFakeMid::Calls() {
  const std::lock_guard lock(m_mutex);
  return m_calls;
}

CFakeMid::TLogCallback CFakeMid::LogCallback() {
  const std::lock_guard lock(m_mutex);
  return m_pfnLog;
}

bool CFakeMid::BuffersWereClean() {
  const std::lock_guard lock(m_mutex);
  return m_bClean;
}

int CFakeMid::ResultOf(const std::string& strFunction) {
  const auto it = m_results.find(strFunction);
  return it != m_results.end() ? it->second : 0;
}

int CFakeMid::OnInit(TLogCallback pfnLog) {
  const std::lock_guard lock(m_mutex);
  m_calls.emplace_back("zxmid_init");
  m_pfnLog = pfnLog;
  return ResultOf("zxmid_init");
}

int CFakeMid::OnParam(const char* pszKey, int iReserved1, int iReserved2) {
  const std::lock_guard lock(m_mutex);
  m_calls.push_back("zxmid_param(" + std::string(pszKey) + "," + std::to_string(iReserved1) + "," +
                    std::to_string(iReserved2) + ")");
  return ResultOf("zxmid_param");
}

int CFakeMid::OnText(const char* pszFunction, char* pszBuffer, int iCapacity) {
  const std::lock_guard lock(m_mutex);
  m_calls.emplace_back(pszFunction);
  const size_t uCapacity = static_cast<size_t>(iCapacity);
  m_bClean = m_bClean && std::all_of(pszBuffer, pszBuffer + uCapacity + 1, [](char ch) { return ch == 0; });
  const auto it = m_texts.find(pszFunction);
  const std::string strText = it != m_texts.end() ? it->second : "fake-" + std::string(pszFunction);
  const size_t uLength = std::min(strText.size(), uCapacity);
  std::memcpy(pszBuffer, strText.data(), uLength);
  pszBuffer[uLength] = 0;
  return ResultOf(pszFunction);
}

int zxmid_init(const zxmid_settings* settings) {
  return CFakeMid::Instance().OnInit(settings->log);
}
int zxmid_param(const char* key, int reserved1, int reserved2) {
  return CFakeMid::Instance().OnParam(key, reserved1, reserved2);
}
int mid(char* buffer, int capacity) {
  return CFakeMid::Instance().OnText("mid", buffer, capacity);
}
int mid2(char* buffer, int capacity) {
  return CFakeMid::Instance().OnText("mid2", buffer, capacity);
}
int zxmid_getmid2sn(char* buffer, int capacity) {
  return CFakeMid::Instance().OnText("zxmid_getmid2sn", buffer, capacity);
}
int zxmid_getmid2disk(char* buffer, int capacity) {
  return CFakeMid::Instance().OnText("zxmid_getmid2disk", buffer, capacity);
}
int zxmid_getmid2mac(char* buffer, int capacity) {
  return CFakeMid::Instance().OnText("zxmid_getmid2mac", buffer, capacity);
}
