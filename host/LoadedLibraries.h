// What the libraries that plug-ins have brought into this process say about themselves. The host does not
// link them, so each is asked only while it is loaded. Any thread; blocks as the library's function does.
#pragma once

#include <map>
#include <string_view>

#include "platform/text/PString.h"

// "key=value:key=value" of zxcloud_getopt, where a value ends at the next ":key=". Empty: the cloud library
// is not loaded, or not initialised.
std::map<CPString, CPString> ReadCloudLink();
std::map<CPString, CPString> ParseLinkText(std::string_view svText);
// Empty: no machine-id library is loaded, or the machine has no id.
CPString ReadMachineId();
