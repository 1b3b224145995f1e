#include "ComponentManifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kIdA = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
constexpr const char* kIdB = "{0d1f2a3b-2d4f-4a6b-8c9d-0e1f2a3b4c5d}";

class Manifest : public testing::Test {
 protected:
  bool Parse(const std::string& strText) { return ParseManifest(strText, m_manifest, m_strError); }
  bool ParseBus(const std::string& strBus) {
    return Parse(std::string(R"({"plugins":[{"id":")") + kIdA + R"(","product":"p","combo":"c"}],"bus":)" +
                 strBus + "}");
  }

  _ComponentManifest m_manifest;
  CPString m_strError;
};

TEST_F(Manifest, WithoutBus_IsNoProcess) {
  ASSERT_TRUE(Parse(R"({"plugins":[{"id":"whatever it says"}]})"));
  EXPECT_FALSE(m_manifest.bExternal);
  EXPECT_THAT(m_manifest.guids, IsEmpty());
}

TEST_F(Manifest, Bus_NamesUserTypesAndGuids) {
  ASSERT_TRUE(Parse(std::string(R"({"plugins":[{"id":")") + kIdA + R"("},{"id":")" + kIdB + R"("},{"id":")" +
                    kIdA + R"("}],"bus":{"user":"_zx-scan1","send":[20204,20001,20204],"broadcast":[7],)" +
                    R"("later":{"x":1}}})"))
      << m_strError.Str();
  EXPECT_TRUE(m_manifest.bExternal);
  EXPECT_EQ(m_manifest.strUser, "_zx-scan1");
  EXPECT_THAT(m_manifest.guids, ElementsAre(GUID(kIdA), GUID(kIdB)));
  EXPECT_THAT(m_manifest.send, ElementsAre(20001u, 20204u));
  EXPECT_THAT(m_manifest.broadcast, ElementsAre(7u));
}

TEST_F(Manifest, BusGuid_GoesBeforeThePluginList) {
  ASSERT_TRUE(ParseBus(std::string(R"({"user":"u","guid":")") + kIdB + "\"}"));
  EXPECT_THAT(m_manifest.guids, ElementsAre(GUID(kIdB)));
  EXPECT_THAT(m_manifest.send, IsEmpty());
}

TEST_F(Manifest, TypesReachFromZeroToTheLast) {
  ASSERT_TRUE(ParseBus(R"({"user":"u","send":[4294967295,0]})"));
  EXPECT_THAT(m_manifest.send, ElementsAre(0u, 4294967295u));
}

struct _Refused {
  const char* pszBus;
  const char* pszWhy;
};

class ManifestRefused : public Manifest, public testing::WithParamInterface<_Refused> {};

TEST_P(ManifestRefused, WithItsReason) {
  EXPECT_FALSE(ParseBus(GetParam().pszBus));
  EXPECT_THAT(m_strError.Str(), HasSubstr(GetParam().pszWhy));
}

INSTANTIATE_TEST_SUITE_P(
    Each, ManifestRefused,
    testing::Values(
        _Refused{"[]", "\"bus\" is no object"}, _Refused{"null", "\"bus\" is no object"},
        _Refused{"{}", "no user name"}, _Refused{R"({"user":0})", "no user name"},
        _Refused{R"({"user":""})", "no user name"}, _Refused{R"({"user":"Root"})", "no user name"},
        _Refused{R"({"user":"0"})", "no user name"}, _Refused{R"({"user":"-u"})", "no user name"},
        _Refused{R"({"user":"u\"/><allow own=\"*"})", "no user name"},
        _Refused{R"({"user":"u\u0000v"})", "not a JSON object"},
        _Refused{R"({"user":"u\n"})", "no user name"},
        _Refused{R"({"user":"a23456789012345678901234567890123"})", "no user name"},
        _Refused{R"({"user":"u","guid":7})", "\"guid\" is no GUID"},
        _Refused{R"({"user":"u","guid":"00000000-0000-0000-0000-000000000000"})", "\"guid\" is no GUID"},
        _Refused{R"({"user":"u","guid":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D "})", "\"guid\" is no GUID"},
        _Refused{R"({"user":"u","guid":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5"})", "\"guid\" is no GUID"},
        _Refused{R"({"user":"u","guid":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4CXX"})", "\"guid\" is no GUID"},
        _Refused{R"({"user":"u","guid":"{5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D"})", "\"guid\" is no GUID"},
        _Refused{R"({"user":"u","send":20001})", "\"send\" is no list"},
        _Refused{R"({"user":"u","send":["20001"]})", "no message type"},
        _Refused{R"({"user":"u","send":[-1]})", "no message type"},
        _Refused{R"({"user":"u","send":[1.5]})", "no message type"},
        _Refused{R"({"user":"u","send":[4294967296]})", "no message type"},
        _Refused{R"({"user":"u","send":[1e999]})", "no message type"},
        _Refused{R"({"user":"u","broadcast":[null]})", "\"broadcast\" holds something"}));

TEST_F(Manifest, TooManyOfAnything_IsRefused) {
  std::string strTypes;
  for (size_t i = 0; i <= kManifestMaxTypes; ++i)
    strTypes += (i == 0 ? "" : ",") + std::to_string(i);
  EXPECT_FALSE(ParseBus(R"({"user":"u","send":[)" + strTypes + "]}"));
  EXPECT_THAT(m_strError.Str(), HasSubstr("too many types"));
  std::string strPlugins;
  for (size_t i = 0; i <= kManifestMaxGuids; ++i)
    strPlugins +=
        CPString::Make("%s{\"id\":\"%08zX-2D4F-4A6B-8C9D-0E1F2A3B4C5D\"}", i == 0 ? "" : ",", i + 1).Str();
  EXPECT_FALSE(Parse(R"({"bus":{"user":"u"},"plugins":[)" + strPlugins + "]}"));
  EXPECT_THAT(m_strError.Str(), HasSubstr("too many GUIDs"));
  EXPECT_FALSE(Parse(std::string(kManifestMaxBytes + 1, ' ')));
  EXPECT_EQ(m_strError, "too long");
}

TEST_F(Manifest, WithoutAGuid_IsRefused) {
  EXPECT_FALSE(Parse(R"({"bus":{"user":"u"}})"));
  EXPECT_EQ(m_strError, "no GUID");
  EXPECT_FALSE(Parse(R"({"bus":{"user":"u"},"plugins":[{"product":"p"}]})"));
  EXPECT_EQ(m_strError, "an \"id\" is no GUID");
}

TEST_F(Manifest, WhatIsNoDocument_IsRefused) {
  for (const std::string& str : {std::string(), std::string("{"), std::string("[]"), std::string("7"),
                                 std::string("{}\0{}", 5), std::string(5000, '[')}) {
    EXPECT_FALSE(Parse(str)) << str;
    EXPECT_EQ(m_strError, "not a JSON object");
  }
}

}  // namespace
