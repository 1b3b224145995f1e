// Component manifests: whatever is accepted must make a policy that is well-formed and says nothing more.
#include <cstdint>
#include <cstdlib>
#include <pugixml.hpp>
#include <string_view>

#include "BusPolicy.h"
#include "ComponentManifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  _ComponentList list;
  list.entries.emplace_back();
  _ComponentEntry& entry = list.entries.back();
  CPString strError;
  if (!ParseManifest({reinterpret_cast<const char*>(pData), uSize}, entry.manifest, strError)) {
    if (strError.IsEmpty() || strError.Find("\n") != CPString::npos)
      std::abort();
    return 0;
  }
  if (!entry.manifest.bExternal)
    return 0;
  entry.uid = 4711;
  const CPString strPolicy = BuildBusPolicy({0, &list});
  pugi::xml_document document;
  if (!document.load_buffer(strPolicy.data(), strPolicy.GetLength(), pugi::parse_default))
    std::abort();
  size_t uRules = 0;
  for (const pugi::xml_node policy : document.child("busconfig").children("policy")) {
    if (policy.attribute("user").as_uint() == 4711) {
      for (const pugi::xml_node rule : policy.children("allow"))
        uRules += rule ? 1 : 0;
    }
  }
  const _ComponentManifest& manifest = entry.manifest;
  if (uRules != manifest.guids.size() + manifest.send.size() + manifest.broadcast.size())
    std::abort();
  return 0;
}
