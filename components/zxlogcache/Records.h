// Records: cutting a byte stream into them, packing them into the store's chunks, and turning a batch of
// them into the log-cache text that the agent takes (bus type 20002). Pure; nothing here logs or blocks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Settings.h"

namespace zxlogcache {

// Records of one chunk: each as 4 bytes of length (little-endian) and its bytes.
void PackRecord(std::string_view record, std::string& strChunk);
// False: the chunk is damaged; the records in front of the damage have been appended.
bool UnpackRecords(std::string_view chunk, std::vector<std::string_view>& records);

// Chunks under construction: records of one source on their way to the store. With bSingle each record gets
// a chunk of its own.
class CChunks {
 public:
  struct _Chunk {
    std::string strData;
    uint32_t uiRecords = 0;
  };
  CChunks(uint32_t uiMaxBytes, bool bSingle) : m_uiMaxBytes(uiMaxBytes), m_bSingle(bSingle) {}
  void Add(std::string_view record);  // an empty one is left out
  void Clear();
  const std::vector<_Chunk>& List() const { return m_chunks; }
  uint64_t Bytes() const { return m_u64Bytes; }
  uint64_t Records() const { return m_u64Records; }

 private:
  uint32_t m_uiMaxBytes;
  bool m_bSingle;
  std::vector<_Chunk> m_chunks;
  uint64_t m_u64Bytes = 0;
  uint64_t m_u64Records = 0;
};

// Lines end in "\n" (a "\r" in front of it goes too); empty ones are left out; one longer than uiMax is cut
// into several, so that nothing is lost. Returns the bytes used; what follows the last line end is left, but
// never more than uiMax of it.
size_t CutLines(std::string_view data, uint32_t uiMax, CChunks& chunks);
void AddLine(std::string_view line, uint32_t uiMax, CChunks& chunks);  // one that has no "\n" any more

// Cuts what one stream connection sends: Lines as above; Octets: "<decimal length> <bytes>", anything else is
// an error.
class CFramer {
 public:
  CFramer(EFraming eFraming, uint32_t uiMax) : m_eFraming(eFraming), m_uiMax(uiMax) {}
  bool Feed(std::string_view data, CChunks& chunks);  // false: the stream cannot be read on
  // The end of the stream: the last line may lack its end. False: an octet frame is incomplete and lost.
  bool Finish(CChunks& chunks);

 private:
  bool FeedOctets(CChunks& chunks);

  EFraming m_eFraming;
  uint32_t m_uiMax;
  std::string m_strRest;
};

// The body of one log cache. Json: {"source":..,"time":..,"count":..,"lines":[..]} with bytes that are not
// UTF-8 replaced. Lines: the records, each with a "\n" behind it. Record: the first record as it is. A NUL
// byte would end the text on its way, so it becomes a space in the last two.
std::string CacheBody(EBody eBody, const std::string& strSource, int64_t i64WallMs,
                      const std::vector<std::string_view>& records);

// The whole text: header tags, body, closing bracket.
std::string CacheText(const _SourceSettings& source, uint64_t u64DataId, std::string_view body);

}  // namespace zxlogcache
