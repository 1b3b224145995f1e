// Bytes whose end is the end of the readable memory: a read past them ends the test program. They are
// read-only too, as what the bus hands over.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

class CGuardedBytes {
 public:
  explicit CGuardedBytes(const std::string& strData) : m_uLength(strData.size()) {
    const size_t uPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t uReadable = (strData.size() + uPage - 1) / uPage * uPage;
    m_uMapped = uReadable + uPage;
    m_pMapped = mmap(nullptr, m_uMapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m_pMapped == MAP_FAILED)
      std::abort();
    unsigned char* pEnd = static_cast<unsigned char*>(m_pMapped) + uReadable;
    m_pData = pEnd - strData.size();
    std::memcpy(const_cast<unsigned char*>(m_pData), strData.data(), strData.size());
    if ((uReadable > 0 && mprotect(m_pMapped, uReadable, PROT_READ) != 0) ||
        mprotect(pEnd, uPage, PROT_NONE) != 0)
      std::abort();
  }
  ~CGuardedBytes() { munmap(m_pMapped, m_uMapped); }
  CGuardedBytes(const CGuardedBytes&) = delete;
  CGuardedBytes& operator=(const CGuardedBytes&) = delete;

  const unsigned char* Data() const { return m_pData; }  // unreadable when there are no bytes
  unsigned int Length() const { return static_cast<unsigned int>(m_uLength); }

 private:
  size_t m_uLength;
  size_t m_uMapped = 0;
  void* m_pMapped = nullptr;
  const unsigned char* m_pData = nullptr;
};
