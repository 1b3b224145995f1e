// Cutting, packing and framing of records; the text must be what the agent's own parser takes.
#include "zxlogcache/Records.h"

#include <gtest/gtest.h>

#include "platform/doc/PJsonParse.h"

using namespace zxlogcache;

namespace {

std::vector<std::string> All(const CChunks& chunks) {
  std::vector<std::string> list;
  for (const auto& chunk : chunks.List()) {
    std::vector<std::string_view> records;
    EXPECT_TRUE(UnpackRecords(chunk.strData, records));
    EXPECT_EQ(records.size(), chunk.uiRecords);
    list.insert(list.end(), records.begin(), records.end());
  }
  return list;
}

using Texts = std::vector<std::string>;

TEST(Records, Lines_AreCutAtTheirEnds_HoweverTheyArrive) {
  const std::string strText = "one\ntwo\r\n\n\nthree\nlast";
  for (size_t uStep = 1; uStep <= strText.size(); ++uStep) {
    CFramer framer(EFraming::Lines, 100);
    CChunks chunks(1000, false);
    for (size_t u = 0; u < strText.size(); u += uStep)
      ASSERT_TRUE(framer.Feed(std::string_view(strText).substr(u, uStep), chunks));
    EXPECT_EQ(All(chunks), (Texts{"one", "two", "three"})) << uStep;
    EXPECT_TRUE(framer.Finish(chunks));
    EXPECT_EQ(All(chunks), (Texts{"one", "two", "three", "last"})) << uStep;
  }
}

TEST(Records, LongLine_BecomesSeveralRecords_AndLosesNothing) {
  std::string strLine;
  for (int i = 0; i < 257; ++i)
    strLine += static_cast<char>('a' + i % 26);
  for (const size_t uStep : {1, 7, 100, 1000}) {
    CFramer framer(EFraming::Lines, 100);
    CChunks chunks(10000, false);
    const std::string strText = strLine + "\nnext\n";
    for (size_t u = 0; u < strText.size(); u += uStep)
      ASSERT_TRUE(framer.Feed(std::string_view(strText).substr(u, uStep), chunks));
    const Texts list = All(chunks);
    ASSERT_EQ(list.size(), 4u) << uStep;
    EXPECT_EQ(list[0] + list[1] + list[2], strLine);
    EXPECT_EQ(list[3], "next");
    EXPECT_EQ(list[0].size(), 100u);
  }
}

TEST(Records, Octets_KeepWhatIsInThem) {
  const std::string strRecord("a\nb\0c>", 6);
  const std::string strText = "6 " + strRecord + "1 x10 0123456789";
  for (size_t uStep = 1; uStep <= strText.size(); ++uStep) {
    CFramer framer(EFraming::Octets, 10);
    CChunks chunks(1000, false);
    for (size_t u = 0; u < strText.size(); u += uStep)
      ASSERT_TRUE(framer.Feed(std::string_view(strText).substr(u, uStep), chunks));
    EXPECT_EQ(All(chunks), (Texts{strRecord, "x", "0123456789"})) << uStep;
    EXPECT_TRUE(framer.Finish(chunks));
  }
}

TEST(Records, OctetsThatAreNone_EndTheStream) {
  for (const char* psz : {"x", "-1 a", " a", "0 ", "11 01234567890", "123456789 ", "12a "}) {
    CFramer framer(EFraming::Octets, 10);
    CChunks chunks(1000, false);
    EXPECT_FALSE(framer.Feed(psz, chunks)) << psz;
  }
  CFramer framer(EFraming::Octets, 10);
  CChunks chunks(1000, false);
  EXPECT_TRUE(framer.Feed("5 abc", chunks));
  EXPECT_FALSE(framer.Finish(chunks));
  EXPECT_EQ(chunks.Records(), 0u);
}

TEST(Records, Chunks_EndAtTheirSize_OrAfterEachRecord) {
  CChunks small(20, false);
  for (const char* psz : {"0123456", "0123456", ""})
    small.Add(psz);
  small.Add("0123456789012345678901234567890");  // alone larger than a chunk
  EXPECT_EQ(small.List().size(), 3u);
  EXPECT_EQ(small.Records(), 3u);
  EXPECT_EQ(small.Bytes(), 7u + 7u + 31u + 12u);
  CChunks single(1000, true);
  single.Add("a");
  single.Add("b");
  EXPECT_EQ(single.List().size(), 2u);
}

TEST(Records, DamagedChunk_GivesWhatStandsInFront) {
  std::string strChunk;
  PackRecord("one", strChunk);
  PackRecord("two", strChunk);
  for (size_t u = 0; u <= strChunk.size(); ++u) {
    std::vector<std::string_view> records;
    const std::string strCut = strChunk.substr(0, u);
    EXPECT_EQ(UnpackRecords(strCut, records), u == 0 || u == 7 || u == 14) << u;
    EXPECT_EQ(records.size(), u / 7);
  }
}

TEST(Records, JsonBody_IsJson_WhateverTheBytes) {
  std::string strAll;
  for (int i = 0; i < 256; ++i)
    strAll += static_cast<char>(i);
  const std::string strBody = CacheBody(EBody::Json, "so\"urce", 1700000000123,
                                        {"plain", strAll, "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"});
  zxtools::CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer(strBody.data(), strBody.size()), 1) << strBody;
  const auto text = [&](const char* pszName) {
    CPString str;
    zxtools::CPJsonParse::GetValue(json.GetNode(pszName), str);
    return str.Str();
  };
  EXPECT_EQ(text("source"), "so\"urce");
  EXPECT_EQ(text("time"), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(text("count"), "3");
  std::vector<zxtools::HJsonNode> lines;
  json.GetAllNode(json.GetNode("lines"), lines);
  ASSERT_EQ(lines.size(), 3u);
  CPString strLine;
  zxtools::CPJsonParse::GetValue(lines[2], strLine);
  EXPECT_EQ(strLine.Str(), "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_NE(strBody.find("\\u0000\\u0001"), std::string::npos);
  EXPECT_NE(strBody.find("~\\u007f\xEF\xBF\xBD"), std::string::npos);
}

TEST(Records, JsonBody_ReplacesBrokenUtf8) {
  for (const char* psz :
       {"\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82", "\xFF", "\x80"}) {
    const std::string strBody = CacheBody(EBody::Json, "s", 0, {psz});
    EXPECT_NE(strBody.find("\"\xEF\xBF\xBD"), std::string::npos) << strBody;
    EXPECT_EQ(strBody.find(psz), std::string::npos);
  }
}

TEST(Records, OtherBodies_AreTheRecords_WithoutNul) {
  const std::string strNul("a\0b", 3);
  EXPECT_EQ(CacheBody(EBody::Lines, "s", 0, {strNul, "two"}), "a b\ntwo\n");
  EXPECT_EQ(CacheBody(EBody::Record, "s", 0, {strNul}), "a b");
}

TEST(Records, CacheText_HasEveryTag_AndTheBodyBehindThem) {
  _SourceSettings source;
  source.strGuid = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
  source.strProduct = "p";
  source.strCombo = "c";
  source.iPriv = 3;
  EXPECT_EQ(CacheText(source, 0x1A2B, "x>y<end=1><msg="),
            "<guid=9946467F-0102-46E8-ACAC-B9EFE3CD68FD><product=p><combo=c><version=1><msgtype=2><priv=3>"
            "<dataid=1a2b><end=1><msg=x>y<end=1><msg=>");
}

}  // namespace
