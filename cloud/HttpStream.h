// One accepted connection as the HTTP library reads and writes it, with the bounds that the library lacks:
// bytes of a request's head, bytes and time of a whole request, and an end as soon as the server stops.
// One thread. Non-blocking socket underneath; the calls wait with poll.
#pragma once

#include <httplib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zxcloudd {

struct _StreamLimits {
  size_t uHeadBytes = 64u << 10;
  size_t uBodyBytes = 1u << 20;    // on the wire, with the overhead of chunks
  uint64_t u64HeadMs = 15000;      // from the first byte to the end of the head
  uint64_t u64RequestMs = 120000;  // from the first byte to the last of the answer
  uint64_t u64StallMs = 10000;     // without any byte in a wanted direction
  uint64_t u64LingerMs = 2000;     // for what still arrives after an early answer
};

class CHttpStream : public httplib::Stream {
 public:
  // Borrows the socket, the TLS context (null: plain) and a descriptor that becomes readable on stop.
  CHttpStream(int iSocket, SSL_CTX* pCtx, int iStopFd, const _StreamLimits& limits);
  ~CHttpStream() override;  // says goodbye; the socket stays open
  CHttpStream(const CHttpStream&) = delete;
  CHttpStream& operator=(const CHttpStream&) = delete;

  bool Handshake();  // true at once without TLS
  // The next request's first byte is there; starts its budget. False as well after a failed read.
  bool WaitRequest(uint64_t u64IdleMs);
  // Says goodbye after an answer that was given before the request was read to its end, and takes what is
  // still on its way: closing over unread bytes would reset the connection, and the answer with it.
  void Linger();
  const SSL* Ssl() const { return m_pSsl; }

  bool is_readable() const override { return true; }  // read and write wait themselves
  bool is_writable() const override { return true; }
  ssize_t read(char* pData, size_t uSize) override;
  ssize_t write(const char* pData, size_t uSize) override;
  void get_remote_ip_and_port(std::string& strIp, int& iPort) const override;
  void get_local_ip_and_port(std::string& strIp, int& iPort) const override;
  socket_t socket() const override { return m_iSocket; }

 private:
  enum class EIo { Done, WantRead, WantWrite, Closed };

  EIo ReadSome(char* pData, size_t uSize, size_t& uGot);
  EIo WriteSome(const char* pData, size_t uSize, size_t& uSent);
  EIo Classify(int iResult) const;
  // Waits for the socket; false on time-out and (bStoppable) on stop.
  bool Wait(EIo eWant, uint64_t u64Until, bool bStoppable) const;
  uint64_t Deadline() const;
  bool Fill();
  void Spend(const char* pData, size_t uSize);

  const int m_iSocket;
  const int m_iStopFd;
  const _StreamLimits m_limits;
  SSL* m_pSsl = nullptr;
  std::array<char, 8192> m_buffer;  // received, not yet asked for
  size_t m_uAt = 0, m_uEnd = 0;
  // The request being read.
  bool m_bBroken = false;  // a read failed; the connection has no further request
  bool m_bInHead = true;
  bool m_bLineEmpty = true;
  size_t m_uSpent = 0;  // bytes of the head, then of the body
  uint64_t m_u64Started = 0;
};

}  // namespace zxcloudd
