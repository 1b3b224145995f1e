#include "platform/os/ZxGauges.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/doc/PJsonParse.h"

namespace {

std::optional<int64_t> Find(const char* pszName) {
  std::optional<int64_t> found;
  for (const ZxGaugeValue& value : ZxGaugesRead()) {
    if (value.strName == pszName) {
      EXPECT_FALSE(found.has_value()) << pszName << " stands twice";
      found = value.i64Value;
    }
  }
  return found;
}

TEST(ZxGauges_test, Read_ShowsWhatWasSetAndAdded) {
  CZxGauge gauge("test.shown");
  EXPECT_EQ(Find("test.shown"), 0);
  gauge.Set(7);
  gauge.Add(-10);
  EXPECT_EQ(gauge.Value(), -3);
  EXPECT_EQ(Find("test.shown"), -3);
}

TEST(ZxGauges_test, Read_ForgetsADestroyedGauge_WhereverItStoodInTheList) {
  auto pFirst = std::make_unique<CZxGauge>("test.first");
  auto pMiddle = std::make_unique<CZxGauge>("test.middle");
  auto pLast = std::make_unique<CZxGauge>("test.last");
  pMiddle.reset();
  EXPECT_FALSE(Find("test.middle").has_value());
  EXPECT_TRUE(Find("test.first").has_value());
  EXPECT_TRUE(Find("test.last").has_value());
  pLast.reset();
  EXPECT_FALSE(Find("test.last").has_value());
  EXPECT_TRUE(Find("test.first").has_value());
  pFirst.reset();
  EXPECT_FALSE(Find("test.first").has_value());
}

TEST(ZxGauges_test, Read_SortsByName_AndAddsUpGaugesOfOneName) {
  CZxGauge b("test.b");
  CZxGauge a1("test.a");
  CZxGauge a2("test.a");
  b.Set(1);
  a1.Set(20);
  a2.Set(22);
  EXPECT_EQ(Find("test.a"), 42);
  std::vector<std::string> names;
  for (const ZxGaugeValue& value : ZxGaugesRead())
    names.emplace_back(value.strName.c_str());
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

TEST(ZxGauges_test, ReadJson_IsOneObject_WithEveryFigure) {
  CZxGauge gauge("test.json \"quoted\"\\\n");
  gauge.Set(INT64_MIN);
  char szJson[4096];
  const int iLength = ZxGaugesReadJson(szJson, sizeof(szJson));
  EXPECT_EQ(std::string(szJson).size(), static_cast<size_t>(iLength));
  zxtools::CPJsonParse json;
  ASSERT_TRUE(json.LoadBuffer(szJson)) << szJson;
  EXPECT_NE(json.GetNode("test.json \"quoted\"\\"), nullptr) << szJson;
  EXPECT_NE(std::string(szJson).find("-9223372036854775808"), std::string::npos) << szJson;
}

TEST(ZxGauges_test, ReadJson_StaysAnObject_WhateverTheCapacity) {
  CZxGauge a("test.capacity.a");
  CZxGauge b("test.capacity.b");
  a.Set(123456789);
  const int iWhole = ZxGaugesReadJson(nullptr, 0);
  ASSERT_GT(iWhole, 0);
  for (size_t uCapacity = 1; uCapacity <= static_cast<size_t>(iWhole) + 1; ++uCapacity) {
    std::vector<char> buffer(uCapacity, '#');
    EXPECT_EQ(ZxGaugesReadJson(buffer.data(), uCapacity), iWhole);
    const std::string strJson(buffer.data());
    if (uCapacity < 3) {
      EXPECT_TRUE(strJson.empty());
      continue;
    }
    zxtools::CPJsonParse json;
    ASSERT_TRUE(json.LoadBuffer(strJson.c_str())) << uCapacity << " " << strJson;
  }
}

TEST(ZxGauges_test, Read_RunsBesideGaugesThatComeAndGo) {
  std::atomic<bool> bStop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&bStop] {
      while (!bStop) {
        CZxGauge gauge("test.storm");
        gauge.Add(1);
      }
    });
  }
  CZxGauge lasting("test.lasting");
  lasting.Set(5);
  for (int i = 0; i < 500; ++i)
    ASSERT_EQ(Find("test.lasting"), 5);
  bStop = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(Find("test.storm").has_value());
}

}  // namespace
