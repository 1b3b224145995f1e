// Shared by the channel calls and the default logger; private to the platform library.
#pragma once

#include <cstdarg>
#include <functional>
#include <string_view>

namespace zxlog {

void GiveToSink(const char* pszChannel, int iLevel, std::string_view svText);

// Formats, cuts what is too long and passes the text on; the text lives for that call.
void FormatLogText(const char* pszFormat, va_list args,
                   const std::function<void(std::string_view)>& fnDeliver)
    __attribute__((format(printf, 1, 0)));

}  // namespace zxlog
