// The exported functions: arguments, the one instance, and its life; everything else is CCloudLink.
#include "platform/cloud/zxcloud.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "platform/cloud/CloudConfig.h"
#include "platform/cloud/CloudLink.h"
#include "platform/cloud/CloudOptions.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace {

using zxcloud::CCloudLink;
using TLink = std::shared_ptr<CCloudLink>;

// What outlives an initialisation, and the turn of those who change it.
struct CLibrary {
  CCritSec cs;
  pthread_cond_t condLife = PTHREAD_COND_INITIALIZER;
  bool bChanging TS_GUARDED_BY(cs) = false;  // an init or uninit is under way, on hChanger
  pthread_t hChanger TS_GUARDED_BY(cs){};
  TLink pLink TS_GUARDED_BY(cs);
  zxcloud::_CloudOptions options TS_GUARDED_BY(cs);
  std::string strOther TS_GUARDED_BY(cs);
};

// Never destroyed: calls may come while the process ends.
CLibrary& Library() {
  static auto* const pLibrary = new CLibrary;
  return *pLibrary;
}

TLink Link() {
  CLibrary& library = Library();
  CCritLock lock(library.cs);
  return library.pLink;
}

// Init and uninit one after another, whichever threads they come from.
class CLifeTurn {
 public:
  CLifeTurn() : m_library(Library()) {
    CCritLock lock(m_library.cs);
    // A log callback of the change itself comes back here.
    if (m_library.bChanging && pthread_equal(m_library.hChanger, pthread_self()) != 0)
      return;
    while (m_library.bChanging)
      pthread_cond_wait(&m_library.condLife, m_library.cs.Native());
    m_library.bChanging = m_bMine = true;
    m_library.hChanger = pthread_self();
  }
  ~CLifeTurn() {
    if (!m_bMine)
      return;
    CCritLock lock(m_library.cs);
    m_library.bChanging = false;
    pthread_cond_broadcast(&m_library.condLife);
  }
  CLifeTurn(const CLifeTurn&) = delete;
  CLifeTurn& operator=(const CLifeTurn&) = delete;
  explicit operator bool() const { return m_bMine; }

 private:
  CLibrary& m_library;
  bool m_bMine = false;
};

bool InCallback() {
  const TLink pLink = Link();
  return pLink != nullptr && pLink->InCallback();
}

void ReportConfig(const zxcloud_record& record, const std::string& strError) {
  zxcloud::CCallbacks callbacks(record);
  zxcloud::CCloudLog log(callbacks);
  log.LogError("**zxcloud configuration not usable file[%s] reason[%s]", std::string(record.config_path),
               strError);
}

uint32_t Init(const zxcloud_record& record) {
  const CLifeTurn turn;
  if (!turn)
    return kZxcloudErrState;
  CLibrary& library = Library();
  zxcloud::_CloudOptions options;
  std::string strOther;
  {
    CCritLock lock(library.cs);
    if (library.pLink != nullptr)
      return kZxcloudErrState;
    options = library.options;
    strOther = library.strOther;
  }
  zxcloud::_CloudConfig config;
  std::string strError;
  if (!zxcloud::LoadCloudConfig(record.config_path, strOther, config, strError)) {
    ReportConfig(record, strError);
    return kZxcloudErrConfig;
  }
  const auto pLink = std::make_shared<CCloudLink>(record, std::move(config), options, zxcloud::_LinkTimes());
  {
    // Before the threads run, so that a callback that sets an option reaches the link.
    CCritLock lock(library.cs);
    library.pLink = pLink;
  }
  const uint32_t uiResult = pLink->Start();
  if (uiResult != 0) {
    CCritLock lock(library.cs);
    library.pLink.reset();
  }
  return uiResult;
}

uint32_t Uninit() {
  const CLifeTurn turn;
  if (!turn)
    return kZxcloudErrState;
  CLibrary& library = Library();
  const TLink pLink = Link();
  if (pLink == nullptr)
    return 0;
  // Kept until it has stopped: a callback that is still running is to be known as one.
  pLink->Stop();
  CCritLock lock(library.cs);
  library.pLink.reset();
  return 0;
}

uint32_t SetOptions(std::string_view svText) {
  CLibrary& library = Library();
  zxcloud::_CloudOptions options;
  TLink pLink;
  {
    CCritLock lock(library.cs);
    if (!library.options.Merge(svText))
      return kZxcloudErrArgument;
    options = library.options;
    pLink = library.pLink;
  }
  if (pLink != nullptr)
    pLink->SetOptions(options);
  return 0;
}

// What every exported function does with the one thing that may be thrown: memory ran out.
template <class F>
uint32_t Guarded(F fnBody) {
  try {
    return fnBody();
  } catch (const std::exception&) {
    return kZxcloudErrFull;
  }
}

template <class F>
uint32_t WithLink(F fnBody) {
  return Guarded([&]() -> uint32_t {
    const TLink pLink = Link();
    return pLink == nullptr ? uint32_t{kZxcloudErrState} : fnBody(*pLink);
  });
}

bool IsData(const char* pData, int iLength) {
  return pData != nullptr && iLength > 0;
}

}  // namespace

uint32_t zxcloud_init(const zxcloud_record* record) {
  if (record == nullptr || record->config_path == nullptr || record->config_path[0] == 0)
    return kZxcloudErrArgument;
  return Guarded([&] { return InCallback() ? uint32_t{kZxcloudErrState} : Init(*record); });
}

uint32_t zxcloud_uninit(void) {
  return Guarded([] { return InCallback() ? uint32_t{kZxcloudErrState} : Uninit(); });
}

uint32_t zxcloud_setopt(const char* text) {
  if (text == nullptr)
    return kZxcloudErrArgument;
  return Guarded([&] { return SetOptions(text); });
}

uint32_t zxcloud_getopt(char* buffer, int capacity) {
  if (buffer == nullptr || capacity <= 0)
    return kZxcloudErrArgument;
  return WithLink([&](CCloudLink& link) -> uint32_t {
    const std::string strText = link.State();
    const size_t uLength = std::min(strText.size(), static_cast<size_t>(capacity) - 1);
    memcpy(buffer, strText.data(), uLength);
    buffer[uLength] = 0;
    return 0;
  });
}

uint32_t zxcloud_set_otherconnaddr(const char* address) {
  if (address == nullptr || strlen(address) > zxcloud::kMaxOptionText)
    return kZxcloudErrArgument;
  return Guarded([&]() -> uint32_t {
    CLibrary& library = Library();
    CCritLock lock(library.cs);
    library.strOther = address;
    return 0;
  });
}

uint32_t zxcloud_tconf_check(const char* address) {
  if (address == nullptr)
    return kZxcloudErrArgument;
  return WithLink([&](CCloudLink& link) { return link.Check(address); });
}

uint32_t zxcloud_send(const char* data, int length, int priority) {
  if (!IsData(data, length))
    return kZxcloudErrArgument;
  return WithLink([&](CCloudLink& link) {
    return link.Send(std::string_view(data, static_cast<size_t>(length)), priority);
  });
}

uint32_t zxcloud_send_sync(const char* data, int length, int priority, int timeout_ms) {
  if (!IsData(data, length) || timeout_ms <= 0)
    return kZxcloudErrArgument;
  return WithLink([&](CCloudLink& link) {
    return link.SendSync(std::string_view(data, static_cast<size_t>(length)), priority,
                         static_cast<uint32_t>(timeout_ms));
  });
}

uint32_t zxcloud_send_pollmsg(const char* data, int length) {
  if (!IsData(data, length))
    return kZxcloudErrArgument;
  return WithLink(
      [&](CCloudLink& link) { return link.Poll(std::string_view(data, static_cast<size_t>(length))); });
}
