// A home of its own for every log test; the environment's overrides are off.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "platform/log/Log.h"
#include "platform/text/PStrList.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

class CLogHomeTest : public ::testing::Test {
 protected:
  CLogHomeTest() {
    ClearEnv();
    LogSetHome(m_home.Root());
  }
  ~CLogHomeTest() override {
    ClearEnv();
    LogSetHome("");
  }

  // No other thread of a log test reads the environment meanwhile.
  static void SetEnv(const char* pszName, const char* pszValue) {
    setenv(pszName, pszValue, 1);  // NOLINT(concurrency-mt-unsafe)
  }
  static void ClearEnv() {
    for (const char* pszName : {"ZX_LOG_DIR", "ZX_LOG_LEVEL"})
      unsetenv(pszName);  // NOLINT(concurrency-mt-unsafe)
  }

  // The lines of a file below the home, each without time and ids.
  std::vector<std::string> TextsIn(const CPString& strRelative) const {
    CPStrList list;
    CPString strData = m_home.ReadFile(strRelative);
    EXPECT_TRUE(strData.IsEmpty() || strData.Right(1) == CPString("\n")) << "unfinished line";
    strData.TrimRight('\n');
    strData.Split("\n", list, true, false);
    std::vector<std::string> texts;
    for (const CPString& strLine : list) {
      const size_t uIds = strLine.Find(":", strLine.Find("] ["));
      const size_t uEnd = strLine.Find("] ", uIds);
      texts.push_back(uEnd == CPString::npos ? strLine.Str() : strLine.Mid(uEnd + 2).Str());
    }
    return texts;
  }

  CTempHome m_home;
};
