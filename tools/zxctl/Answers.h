// Reading what the operator interface answers, and printing it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CloudClient.h"
#include "platform/doc/PJsonParse.h"

namespace zxctl {

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

// Members of hParent (null: the root); empty, 0 and no items when they are not there.
std::string TextOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName);
int64_t NumberOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName);
std::vector<HJsonNode> ItemsOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName);

// kExitOk when the answer is 200 and JSON, which json then holds; otherwise says on stderr what is wrong.
int CheckAnswer(const _Answer& answer, CPJsonParse& json);

int64_t NowMs();
void Print(const std::string& str);
// What a machine sent, over several lines; control characters that could steer a terminal become "?".
void PrintForeign(const std::string& str);

}  // namespace zxctl
