// What a component's manifest (etc/coms/client/<name>/config.json) says about the bus: which GUIDs it joins
// under, as which system user, and which message types it may send. The file's older members stay as they
// are; a manifest without the member "bus" belongs to a component that runs inside the host or not at all.
// Pure: no files, no logging. Any thread.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/text/Guid.h"
#include "platform/text/PString.h"

inline constexpr size_t kManifestMaxBytes = 1u << 20;
inline constexpr size_t kManifestMaxGuids = 16;
inline constexpr size_t kManifestMaxTypes = 256;
inline constexpr size_t kUserNameMaxBytes = 32;

struct _ComponentManifest {
  bool bExternal = false;           // has a member "bus": a process of its own
  std::vector<GUID> guids;          // without repeats, in document order
  CPString strUser;                 // a name, checked for its form only
  std::vector<uint32_t> send;       // types of requests it may send; sorted, without repeats
  std::vector<uint32_t> broadcast;  // types it may broadcast; likewise
};

// False with strError (one line, no text of the document in it) when the document is none or its member "bus"
// is not usable; then nothing of it may be trusted.
bool ParseManifest(std::string_view svText, _ComponentManifest& manifest, CPString& strError);

// The dashed form in either case, with or without braces, whole text, not zero.
bool ParseGuidText(std::string_view svText, GUID& guid);
// [a-z_][a-z0-9_-]*, at most kUserNameMaxBytes.
bool IsUserName(std::string_view svText);
