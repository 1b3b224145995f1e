#include "platform/os/ZxGauges.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "platform/os/ZxWait.h"

// The gauges that exist now. Constant-initialised: libraries register theirs while they are being loaded.
class CZxGaugeList {
 public:
  constexpr CZxGaugeList() = default;

  void Insert(CZxGauge& gauge) {
    const CMutexGuard guard(m_mutex);
    gauge.m_pNext = m_pFirst;
    if (m_pFirst != nullptr)
      m_pFirst->m_pPrev = &gauge;
    m_pFirst = &gauge;
  }

  void Remove(CZxGauge& gauge) {
    const CMutexGuard guard(m_mutex);
    (gauge.m_pPrev == nullptr ? m_pFirst : gauge.m_pPrev->m_pNext) = gauge.m_pNext;
    if (gauge.m_pNext != nullptr)
      gauge.m_pNext->m_pPrev = gauge.m_pPrev;
  }

  // Names are copied under the lock: they may live in a library that is unloaded right behind it.
  std::vector<ZxGaugeValue> Copy() {
    std::vector<ZxGaugeValue> values;
    const CMutexGuard guard(m_mutex);
    for (const CZxGauge* pGauge = m_pFirst; pGauge != nullptr; pGauge = pGauge->m_pNext)
      values.push_back({CPString(pGauge->m_pszName), pGauge->Value()});
    return values;
  }

 private:
  pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
  CZxGauge* m_pFirst = nullptr;
};

namespace {

constinit CZxGaugeList s_list;

void AppendName(std::string& strJson, std::string_view name) {
  strJson += '"';
  for (const char ch : name) {
    if (ch == '"' || ch == '\\')
      strJson += '\\';
    if (static_cast<unsigned char>(ch) >= ' ')
      strJson += ch;
  }
  strJson += '"';
}

// The object, and the longest beginning of it that becomes an object with a closing brace within uLimit
// bytes.
std::string JsonOf(const std::vector<ZxGaugeValue>& values, size_t uLimit, size_t& uFits) {
  std::string strJson = "{";
  uFits = 1;
  for (const ZxGaugeValue& value : values) {
    if (strJson.size() > 1)
      strJson += ',';
    AppendName(strJson, value.strName.View());
    strJson += ':';
    strJson += std::to_string(value.i64Value);
    if (strJson.size() + 1 <= uLimit)
      uFits = strJson.size();
  }
  strJson += '}';
  return strJson;
}

}  // namespace

CZxGauge::CZxGauge(const char* pszName) : m_pszName(pszName) {
  s_list.Insert(*this);
}

CZxGauge::~CZxGauge() {
  s_list.Remove(*this);
}

std::vector<ZxGaugeValue> ZxGaugesRead() {
  std::vector<ZxGaugeValue> values = s_list.Copy();
  std::sort(values.begin(), values.end(),
            [](const ZxGaugeValue& a, const ZxGaugeValue& b) { return a.strName.View() < b.strName.View(); });
  std::vector<ZxGaugeValue> sums;
  for (ZxGaugeValue& value : values) {
    if (!sums.empty() && sums.back().strName.View() == value.strName.View())
      sums.back().i64Value += value.i64Value;
    else
      sums.push_back(std::move(value));
  }
  return sums;
}

int ZxGaugesReadJson(char* pszBuffer, size_t uCapacity) {
  constexpr size_t kEmptyObjectBytes = 3;  // with its NUL
  try {
    const size_t uLimit = uCapacity == 0 ? 0 : uCapacity - 1;
    size_t uFits = 0;
    const std::string strJson = JsonOf(ZxGaugesRead(), uLimit, uFits);
    if (uCapacity >= kEmptyObjectBytes) {
      std::memcpy(pszBuffer, strJson.data(), uFits);
      pszBuffer[uFits] = '}';
      pszBuffer[uFits + 1] = 0;
    } else if (uCapacity != 0) {
      pszBuffer[0] = 0;
    }
    return static_cast<int>(strJson.size());
  } catch (const std::exception&) {
    return -1;
  }
}
