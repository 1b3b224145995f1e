// A TCP proxy on 127.0.0.1 that spoils connections the way networks do: it stops forwarding without closing
// anything, cuts, delays, refuses. Connections are numbered from 0 in the order in which they came.
// One thread of its own; every method may be called from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

class CTcpProxy {
 public:
  explicit CTcpProxy(uint16_t wTarget);  // a port of 127.0.0.1
  ~CTcpProxy();
  CTcpProxy(const CTcpProxy&) = delete;
  CTcpProxy& operator=(const CTcpProxy&) = delete;

  uint16_t Port() const { return m_wPort; }
  void Freeze(size_t uConnection);  // neither reads nor writes on it any more
  void FreezeAll();                 // also every one to come
  void Thaw();
  void Cut(size_t uConnection);
  void CutAll();
  void Refuse(bool bRefuse);                              // connections to come are closed at once
  void Delay(uint32_t dwMs);                              // of each piece of data, in each direction
  size_t Attempts() const { return m_uAttempts.load(); }  // connections that came, refused ones too
  size_t Open();                                          // connections that stand

 private:
  struct _Pair;

  void Run();
  void Accept();
  void Serve(_Pair& pair, int iSide, short sEvents);
  void Ask(const std::function<void()>& fnChange);

  const uint16_t m_wTarget;
  uint16_t m_wPort = 0;
  int m_fdListen = -1;
  int m_fdWake = -1;
  std::atomic<bool> m_bStop{false};
  std::atomic<size_t> m_uAttempts{0};
  std::mutex m_mutex;  // everything below
  std::vector<std::unique_ptr<_Pair>> m_pairs;
  bool m_bFreezeAll = false;
  bool m_bRefuse = false;
  uint32_t m_dwDelayMs = 0;
  std::thread m_thread;
};
