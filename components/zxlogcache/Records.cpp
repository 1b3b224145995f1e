#include "Records.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace zxlogcache {
namespace {

constexpr size_t kMaxLengthDigits = 8;

// Bytes of the well-formed UTF-8 sequence at the front of text; 0 when there is none.
size_t Utf8Length(std::string_view text) {
  const auto byte = [&](size_t u) { return static_cast<unsigned char>(text[u]); };
  const unsigned char c = byte(0);
  const size_t uLength = c < 0x80                ? 1
                         : c >= 0xC2 && c < 0xE0 ? 2
                         : c >= 0xE0 && c < 0xF0 ? 3
                         : c >= 0xF0 && c < 0xF5 ? 4
                                                 : 0;
  if (uLength == 0 || text.size() < uLength)
    return 0;
  for (size_t u = 1; u < uLength; ++u) {
    if ((byte(u) & 0xC0) != 0x80)
      return 0;
  }
  const bool bOverlong = (c == 0xE0 && byte(1) < 0xA0) || (c == 0xF0 && byte(1) < 0x90);
  const bool bOutside = (c == 0xED && byte(1) > 0x9F) || (c == 0xF4 && byte(1) > 0x8F);
  return bOverlong || bOutside ? 0 : uLength;
}

void AppendJsonText(std::string_view text, std::string& strOut) {
  strOut += '"';
  while (!text.empty()) {
    const unsigned char c = static_cast<unsigned char>(text.front());
    size_t uLength = 1;
    if (c == '"' || c == '\\') {
      strOut += '\\';
      strOut += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      char sz[8];
      std::snprintf(sz, sizeof(sz), "\\u%04x", c);
      strOut += sz;
    } else if (uLength = Utf8Length(text); uLength == 0) {
      strOut += "\xEF\xBF\xBD";
      uLength = 1;
    } else {
      strOut.append(text.substr(0, uLength));
    }
    text.remove_prefix(uLength);
  }
  strOut += '"';
}

std::string UtcTime(int64_t i64WallMs) {
  const time_t seconds = static_cast<time_t>(i64WallMs / 1000);
  tm utc{};
  char sz[64];
  if (gmtime_r(&seconds, &utc) == nullptr || std::strftime(sz, sizeof(sz), "%Y-%m-%dT%H:%M:%S", &utc) == 0)
    return "";
  char szAll[80];
  std::snprintf(szAll, sizeof(szAll), "%s.%03dZ", sz, static_cast<int>(i64WallMs % 1000));
  return szAll;
}

std::string JsonBody(const std::string& strSource, int64_t i64WallMs,
                     const std::vector<std::string_view>& records) {
  std::string strBody = "{\"source\":";
  AppendJsonText(strSource, strBody);
  strBody += ",\"time\":";
  AppendJsonText(UtcTime(i64WallMs), strBody);
  strBody += ",\"count\":" + std::to_string(records.size()) + ",\"lines\":[";
  for (size_t u = 0; u < records.size(); ++u) {
    if (u != 0)
      strBody += ',';
    AppendJsonText(records[u], strBody);
  }
  return strBody + "]}";
}

}  // namespace

void PackRecord(std::string_view record, std::string& strChunk) {
  const uint32_t uiLength = static_cast<uint32_t>(record.size());
  for (int iShift = 0; iShift < 32; iShift += 8)
    strChunk += static_cast<char>(uiLength >> iShift);
  strChunk.append(record);
}

bool UnpackRecords(std::string_view chunk, std::vector<std::string_view>& records) {
  while (!chunk.empty()) {
    uint32_t uiLength = 0;
    if (chunk.size() < 4)
      return false;
    for (int i = 3; i >= 0; --i)
      uiLength = uiLength << 8 | static_cast<unsigned char>(chunk[static_cast<size_t>(i)]);
    chunk.remove_prefix(4);
    if (uiLength > chunk.size())
      return false;
    records.push_back(chunk.substr(0, uiLength));
    chunk.remove_prefix(uiLength);
  }
  return true;
}

void CChunks::Add(std::string_view record) {
  if (record.empty())
    return;
  if (m_chunks.empty() || m_bSingle || m_chunks.back().strData.size() + record.size() + 4 > m_uiMaxBytes)
    m_chunks.emplace_back();
  PackRecord(record, m_chunks.back().strData);
  ++m_chunks.back().uiRecords;
  m_u64Bytes += record.size() + 4;
  ++m_u64Records;
}

void CChunks::Clear() {
  m_chunks.clear();
  m_u64Bytes = 0;
  m_u64Records = 0;
}

void AddLine(std::string_view line, uint32_t uiMax, CChunks& chunks) {
  if (!line.empty() && line.back() == '\r')
    line.remove_suffix(1);
  while (!line.empty()) {
    chunks.Add(line.substr(0, uiMax));
    line.remove_prefix(std::min<size_t>(line.size(), uiMax));
  }
}

size_t CutLines(std::string_view data, uint32_t uiMax, CChunks& chunks) {
  size_t uStart = 0;
  for (size_t uEnd = data.find('\n'); uEnd != std::string_view::npos; uEnd = data.find('\n', uStart)) {
    AddLine(data.substr(uStart, uEnd - uStart), uiMax, chunks);
    uStart = uEnd + 1;
  }
  for (; data.size() - uStart > uiMax; uStart += uiMax)
    chunks.Add(data.substr(uStart, uiMax));
  return uStart;
}

bool CFramer::Feed(std::string_view data, CChunks& chunks) {
  m_strRest.append(data);
  if (m_eFraming == EFraming::Octets)
    return FeedOctets(chunks);
  m_strRest.erase(0, CutLines(m_strRest, m_uiMax, chunks));
  return true;
}

bool CFramer::FeedOctets(CChunks& chunks) {
  std::string_view rest(m_strRest);
  while (!rest.empty()) {
    const size_t uSpace = rest.find(' ');
    const std::string_view digits = rest.substr(0, uSpace);
    if (digits.empty() || digits.size() > kMaxLengthDigits ||
        digits.find_first_not_of("0123456789") != std::string_view::npos)
      return false;
    if (uSpace == std::string_view::npos)
      break;
    const size_t uLength = std::stoul(std::string(digits));
    if (uLength == 0 || uLength > m_uiMax)
      return false;
    if (rest.size() - uSpace - 1 < uLength)
      break;
    chunks.Add(rest.substr(uSpace + 1, uLength));
    rest.remove_prefix(uSpace + 1 + uLength);
  }
  m_strRest.erase(0, m_strRest.size() - rest.size());
  return true;
}

bool CFramer::Finish(CChunks& chunks) {
  const bool bWhole = m_eFraming == EFraming::Lines || m_strRest.empty();
  if (m_eFraming == EFraming::Lines)
    AddLine(m_strRest, m_uiMax, chunks);
  m_strRest.clear();
  return bWhole;
}

std::string CacheBody(EBody eBody, const std::string& strSource, int64_t i64WallMs,
                      const std::vector<std::string_view>& records) {
  if (eBody == EBody::Json)
    return JsonBody(strSource, i64WallMs, records);
  std::string strBody;
  for (const std::string_view record : records) {
    strBody.append(record);
    if (eBody == EBody::Record)
      break;
    strBody += '\n';
  }
  std::replace(strBody.begin(), strBody.end(), '\0', ' ');
  return strBody;
}

std::string CacheText(const _SourceSettings& source, uint64_t u64DataId, std::string_view body) {
  char szNumbers[96];
  std::snprintf(szNumbers, sizeof(szNumbers),
                "><version=1><msgtype=%d><priv=%d><dataid=%llx><end=1><msg=", source.iMsgType, source.iPriv,
                static_cast<unsigned long long>(u64DataId));
  std::string strText =
      "<guid=" + source.strGuid + "><product=" + source.strProduct + "><combo=" + source.strCombo + szNumbers;
  strText.append(body);
  return strText + ">";
}

}  // namespace zxlogcache
