// Command texts in, result documents out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/doc/PJsonParse.h"
#include "zxpmaint/Spool.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MaintCommand : public ::testing::Test {
 protected:
  bool Parse(const std::string& strText) {
    m_command = CMaintCommand();
    m_strError.clear();
    return ParseCommand(strText, m_command, m_strError);
  }
  static std::string Text(const std::string& strParam) {
    return R"({"ID":"maint-1","Command":"RunScriptProcess","Param":{"script":"df -h\n")" +
           (strParam.empty() ? std::string() : "," + strParam) + "}}";
  }
  static std::string Value(const std::string& strResult, const char* pszName) {
    zxtools::CPJsonParse json;
    EXPECT_EQ(json.LoadBuffer(strResult.data(), strResult.size()), 1) << strResult;
    CPString strValue("(none)");
    if (json.GetNode(pszName) != nullptr)
      zxtools::CPJsonParse::GetValue(json.GetNode(pszName), strValue);
    return strValue.Str();
  }

  CMaintCommand m_command;
  std::string m_strError;
};

TEST_F(MaintCommand, HasDefaults) {
  ASSERT_TRUE(Parse(R"({"ID":"x","Param":{"script":"true"}})")) << m_strError;
  EXPECT_EQ(m_command.strId, "x");
  EXPECT_EQ(m_command.script.strText, "true");
  EXPECT_EQ(m_command.script.strInterpreter, "/bin/sh");
  EXPECT_THAT(m_command.script.args, IsEmpty());
  EXPECT_EQ(m_command.script.uTimeoutMs, 60000u);
  EXPECT_EQ(m_command.script.uMaxOutputBytes, 65536u);
}

TEST_F(MaintCommand, TakesEveryField) {
  ASSERT_TRUE(Parse(Text(
      R"("interpreter":"/usr/bin/python3","args":["a","b c",""],"timeout_sec":3600,"max_output_bytes":1048576)")))
      << m_strError;
  EXPECT_EQ(m_command.strId, "maint-1");
  EXPECT_EQ(m_command.script.strText, "df -h\n");
  EXPECT_EQ(m_command.script.strInterpreter, "/usr/bin/python3");
  EXPECT_THAT(m_command.script.args, ElementsAre("a", "b c", ""));
  EXPECT_EQ(m_command.script.uTimeoutMs, 3600000u);
  EXPECT_EQ(m_command.script.uMaxOutputBytes, 1048576u);
  ASSERT_TRUE(Parse(Text(R"("timeout_sec":1,"max_output_bytes":1)"))) << m_strError;
  EXPECT_EQ(m_command.script.uTimeoutMs, 1000u);
  EXPECT_EQ(m_command.script.uMaxOutputBytes, 1u);
}

TEST_F(MaintCommand, RefusesWhatIsNoCommand) {
  const std::string cases[] = {
      "",
      " ",
      "not json",
      "{\"ID\":\"x\",\"Param\":{\"script\":\"true\"}",
      std::string("{\"ID\":\"x\"\0}", 11),
      "[]",
      "\"text\"",
      "{}",
      R"({"Param":{"script":"true"}})",
      R"({"ID":"","Param":{"script":"true"}})",
      R"({"ID":"x"})",
      R"({"ID":"x","script":"true"})",
      R"({"ID":"x","Param":{}})",
      R"({"ID":"x","Param":[]})",
      R"({"ID":"x","Param":"true"})",
      R"({"ID":"x","Param":{"script":null}})",
      R"({"ID":"x","Param":{"script":["true"]}})",
      R"({"ID":"x","Param":{"Script":"true"}})",
      Text(R"("timeout_sec":0)"),
      Text(R"("timeout_sec":-1)"),
      Text(R"("timeout_sec":3601)"),
      Text(R"("timeout_sec":4294967297)"),
      Text(R"("timeout_sec":"x")"),
      Text(R"("timeout_sec":{})"),
      Text(R"("max_output_bytes":0)"),
      Text(R"("max_output_bytes":-1)"),
      Text(R"("max_output_bytes":1048577)"),
      Text(R"("max_output_bytes":1e30)"),
      Text(R"("interpreter":"")"),
      Text(R"("interpreter":7)"),
      Text(R"("args":"a")"),
      Text(R"("args":[["a"]])"),
      Text(R"("args":["a",{}])"),
      std::string(200000, '['),
  };
  for (const std::string& strText : cases) {
    EXPECT_FALSE(Parse(strText)) << strText.substr(0, 200);
    EXPECT_NE(m_strError, "") << strText.substr(0, 200);
    EXPECT_LT(m_strError.size(), 1000u) << "a reason, not the text";
  }
}

// --- Results.

TEST_F(MaintCommand, Result_HasTheDocumentedMembers_InOrder) {
  CScriptResult result;
  result.eState = CScriptResult::EState::Done;
  result.iExitCode = 0;
  result.u64DurationMs = 12;
  result.strStdout = "...";
  EXPECT_EQ(FormatResult("maint-1", result, ""),
            R"({"ID":"maint-1","state":"done","exit_code":0,"signal":0,"duration_ms":12,"truncated":false,)"
            R"("stdout":"...","stderr":"","error":""})");
}

TEST_F(MaintCommand, Result_NamesTheState) {
  CScriptResult result;
  EXPECT_EQ(Value(FormatResult("x", result, "why"), "state"), "failed");
  EXPECT_EQ(Value(FormatResult("x", result, "why"), "error"), "why");
  result.eState = CScriptResult::EState::Timeout;
  result.iSignal = 9;
  EXPECT_EQ(Value(FormatResult("x", result, ""), "state"), "timeout");
  EXPECT_EQ(Value(FormatResult("x", result, ""), "signal"), "9");
  EXPECT_EQ(Value(FormatResult("x", result, ""), "exit_code"), "-1");
  result.eState = CScriptResult::EState::Done;
  result.bTruncated = true;
  result.u64DurationMs = 3600000;
  EXPECT_EQ(Value(FormatResult("x", result, ""), "truncated"), "true");
  EXPECT_EQ(Value(FormatResult("x", result, ""), "duration_ms"), "3600000");
}

TEST_F(MaintCommand, Result_ReplacesWhatIsNotUtf8) {
  const std::string strBad = "\xef\xbf\xbd";
  struct _Case {
    const char* pszName;
    std::string strRaw;
    std::string strExpect;
  };
  const _Case cases[] = {
      {"ascii", "plain\n\t\"\\/", "plain\n\t\"\\/"},
      {"good", "\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf",
       "\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf"},
      {"lone byte",
       "a\xff"
       "b",
       "a" + strBad + "b"},
      {"lone continuation",
       "a\x80"
       "b",
       "a" + strBad + "b"},
      {"cut at the end", "a\xe4\xb8", ""},
      {"cut inside", "\xe4\xb8x", ""},
      {"overlong", "\xc0\xaf", ""},
      {"overlong slash", "\xe0\x80\xaf", ""},
      {"surrogate", "\xed\xa0\x80", ""},
      {"too large", "\xf4\x90\x80\x80", ""},
  };
  for (const _Case& testCase : cases) {
    CScriptResult result;
    result.strStdout = testCase.strRaw;
    result.strStderr = testCase.strRaw;
    const std::string strText = FormatResult("x", result, testCase.strRaw);
    const std::string strOut = Value(strText, "stdout");
    EXPECT_EQ(strOut, Value(strText, "stderr")) << testCase.pszName;
    EXPECT_EQ(strOut, Value(strText, "error")) << testCase.pszName;
    if (!testCase.strExpect.empty()) {
      EXPECT_EQ(strOut, testCase.strExpect) << testCase.pszName;
    } else {
      EXPECT_NE(strOut.find(strBad), std::string::npos) << testCase.pszName;
      EXPECT_EQ(strOut.find_first_of("\xc0\xe0\xe4\xed\xf4"), std::string::npos) << testCase.pszName;
    }
  }
}

TEST_F(MaintCommand, Result_IsOneText_WhateverTheOutput) {
  CScriptResult result;
  result.strStdout = std::string("a\0b\x01\x1f\x7f", 6);
  const std::string strText = FormatResult("q\"\\\n", result, "");
  EXPECT_EQ(std::strlen(strText.c_str()), strText.size()) << "no NUL in it";
  EXPECT_EQ(strText.find('\n'), std::string::npos);
  EXPECT_EQ(Value(strText, "ID"), "q\"\\\n");
  const std::string strOut = Value(strText, "stdout");
  EXPECT_EQ(strOut.front(), 'a');
  EXPECT_NE(strOut.find("b\x01\x1f\x7f"), std::string::npos) << "nothing is lost behind a NUL";
}
