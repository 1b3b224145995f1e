#include "platform/bus/BusItems.h"

#include <sys/random.h>

#include <cstring>

#include "platform/os/ZxTime.h"

namespace {

// Also the part that makes baton handles unique, so it never repeats in a process.
// Starts at a random place, so that a handle derived from a token cannot be told from outside.
unsigned long long FirstToken() {
  unsigned long long ui64Random = 0;
  if (getrandom(&ui64Random, sizeof(ui64Random), GRND_NONBLOCK) != sizeof(ui64Random))
    ui64Random = ZxGetTickCount() << 24;
  return ui64Random >> 24;  // 40 bits, so that a handle, which is the token shifted by 20, keeps all of them
}

}  // namespace

unsigned long long NextBusToken() {
  static std::atomic<unsigned long long> s_ui64LastACT{FirstToken()};
  return s_ui64LastACT.fetch_add(1, std::memory_order_relaxed) + 1;
}

TBusBytes CopyBytes(const void* pData, uint32_t uiLength) {
  if (uiLength == 0)
    return nullptr;
  TBusBytes bytes(static_cast<unsigned char*>(std::malloc(uiLength)));
  if (bytes == nullptr)
    throw std::bad_alloc();
  std::memcpy(bytes.get(), pData, uiLength);
  return bytes;
}

void CBusCall::Destroy() {
  if (m_pRequest == nullptr) {
    delete this;
    return;
  }
  CBusRequest* pRequest = m_pRequest;
  pRequest->~CBusRequest();
  ::operator delete(static_cast<void*>(pRequest));
}

void CBusMessage::operator delete(CBusMessage* pMessage, std::destroying_delete_t) {
  if (pMessage->bInRequest) {
    pMessage->pOwn.reset();
    const CBusRef<CBusCall> last = std::move(pMessage->call);  // the block may go with it
    return;
  }
  pMessage->~CBusMessage();
  ::operator delete(static_cast<void*>(pMessage));
}

std::unique_ptr<CBusMessage> CBusRequest::New(const void* pData, uint32_t uiLength) {
  const bool bInline = uiLength != 0 && uiLength <= kInlineBytes;
  void* pBlock = ::operator new(sizeof(CBusRequest) + (bInline ? uiLength : 0));
  auto* pRequest = new (pBlock) CBusRequest;
  pRequest->call.m_pRequest = pRequest;
  pRequest->message.bInRequest = true;
  pRequest->message.uiLength = uiLength;
  pRequest->message.call = CBusRef<CBusCall>(&pRequest->call);
  std::unique_ptr<CBusMessage> pMessage(&pRequest->message);
  if (bInline) {
    auto* pInline = reinterpret_cast<unsigned char*>(pRequest + 1);
    std::memcpy(pInline, pData, uiLength);
    pMessage->pInline = pInline;
  } else {
    pMessage->pOwn = CopyBytes(pData, uiLength);
  }
  return pMessage;
}
