#include "BusPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pugixml.hpp>

namespace {

using testing::HasSubstr;
using testing::Not;

_ComponentEntry Entry(const char* pszGuid, uid_t uid, std::vector<uint32_t> send) {
  _ComponentEntry entry;
  entry.strName = "x";
  entry.manifest.bExternal = true;
  entry.manifest.guids = {GUID(pszGuid)};
  entry.manifest.send = std::move(send);
  entry.uid = uid;
  return entry;
}

// The rules of one user's block, as "allow own=... ", in document order.
std::vector<std::string> BlockOf(const CPString& strPolicy, const char* pszUser) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(strPolicy.c_str(), pugi::parse_default | pugi::parse_doctype));
  std::vector<std::string> rules;
  for (const pugi::xml_node policy : document.child("busconfig").children("policy")) {
    if (std::string(policy.attribute("user").value()) != pszUser)
      continue;
    for (const pugi::xml_node rule : policy.children()) {
      std::string strRule = rule.name();
      for (const pugi::xml_attribute attribute : rule.attributes())
        strRule += std::string(" ") + attribute.name() + "=" + attribute.value();
      rules.push_back(strRule);
    }
  }
  return rules;
}

TEST(BusPolicy, Component_OwnsItsNameAndSendsItsTypes) {
  _ComponentList list;
  list.entries.push_back(Entry("5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D", 4711, {20001}));
  list.entries.back().manifest.broadcast = {7};
  const CPString strPolicy = BuildBusPolicy({0, &list});
  EXPECT_THAT(
      BlockOf(strPolicy, "4711"),
      testing::ElementsAre("allow own=com.zxagent.bus1.c.g5a3b7c1e2d4f4a6b8c9d0e1f2a3b4c5d",
                           "allow send_type=method_call send_destination_prefix=com.zxagent.bus1.c "
                           "send_interface=com.zxagent.bus1.Component send_path=/com/zxagent/bus1/type/20001",
                           "allow send_type=signal send_interface=com.zxagent.bus1.Component "
                           "send_path=/com/zxagent/bus1/type/7"));
  EXPECT_THAT(BlockOf(strPolicy, "0"), testing::Contains("allow own_prefix=com.zxagent.bus1"));
  EXPECT_THAT(strPolicy.Str(), HasSubstr("<allow user=\"4711\"/>"));
  EXPECT_THAT(strPolicy.Str(), Not(HasSubstr("<allow user=\"*\"")));
}

TEST(BusPolicy, RefusedComponent_HasNoPlaceInIt) {
  _ComponentList list;
  list.entries.push_back(Entry("5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D", 4711, {20001}));
  list.entries.back().strRefused = "because";
  EXPECT_EQ(BuildBusPolicy({0, &list}), BuildBusPolicy({0, nullptr}));
}

TEST(BusPolicy, HostThatIsNotRoot_AllowsItsOwnUserAndRootOnly) {
  _ComponentList list;
  list.entries.push_back(Entry("5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D", 4711, {20001}));
  const CPString strPolicy = BuildBusPolicy({1234, &list});
  EXPECT_THAT(BlockOf(strPolicy, "4711"), testing::IsEmpty());
  EXPECT_THAT(BlockOf(strPolicy, "1234"), testing::Contains("allow own_prefix=com.zxagent.bus1"));
  EXPECT_THAT(strPolicy.Str(), Not(HasSubstr("4711")));
}

TEST(BusPolicy, StalledReceiver_CannotStopASender) {
  pugi::xml_document document;
  ASSERT_TRUE(document.load_string(BuildBusPolicy({0, nullptr}).c_str()));
  const auto limit = [&](const char* pszName) {
    return document.child("busconfig").find_child_by_attribute("limit", "name", pszName).text().as_llong();
  };
  EXPECT_LE(limit("max_outgoing_bytes") * 4, limit("max_incoming_bytes"));
  EXPECT_GT(limit("reply_timeout"), 300000);  // above the longest time that a send may take
}

}  // namespace
