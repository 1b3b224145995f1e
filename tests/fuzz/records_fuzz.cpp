// What the log-cache forwarder reads from a socket: cut into records, packed, unpacked, made a body.
#include <cstdint>
#include <cstdlib>

#include "platform/doc/PJsonParse.h"
#include "zxlogcache/Records.h"

using namespace zxlogcache;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string_view data(reinterpret_cast<const char*>(pData), uSize);
  for (const EFraming eFraming : {EFraming::Lines, EFraming::Octets}) {
    CFramer framer(eFraming, 300);
    CChunks chunks(1000, false);
    const size_t uHalf = uSize / 2;
    if (framer.Feed(data.substr(0, uHalf), chunks) && framer.Feed(data.substr(uHalf), chunks))
      framer.Finish(chunks);
    for (const auto& chunk : chunks.List()) {
      std::vector<std::string_view> records;
      if (!UnpackRecords(chunk.strData, records) || records.size() != chunk.uiRecords)
        std::abort();
      const std::string strBody = CacheBody(EBody::Json, "fuzz", 0, records);
      zxtools::CPJsonParse json;
      if (json.LoadBuffer(strBody.data(), strBody.size()) == 0)
        std::abort();
    }
  }
  std::vector<std::string_view> records;
  UnpackRecords(data, records);
  return 0;
}
