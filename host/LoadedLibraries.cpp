#include "LoadedLibraries.h"

#include <dlfcn.h>

#include <string>

namespace {

constexpr int kLinkBytes = 16384;
constexpr int kMidBytes = 128;

// Keeps a library in the process while it is being asked.
class CLoaded {
 public:
  explicit CLoaded(const char* pszName) : m_hLibrary(dlopen(pszName, RTLD_NOW | RTLD_NOLOAD)) {}
  ~CLoaded() {
    if (m_hLibrary != nullptr)
      dlclose(m_hLibrary);
  }
  CLoaded(const CLoaded&) = delete;
  CLoaded& operator=(const CLoaded&) = delete;
  template <class T>
  T Find(const char* pszName) const {
    return m_hLibrary != nullptr ? reinterpret_cast<T>(dlsym(m_hLibrary, pszName)) : nullptr;
  }

 private:
  void* m_hLibrary;
};

bool IsKeyByte(char ch) {
  return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_';
}

// Where the next ":key=" begins at or after uFrom; npos when there is none.
size_t NextPair(std::string_view svText, size_t uFrom) {
  for (size_t uColon = svText.find(':', uFrom); uColon != std::string_view::npos;
       uColon = svText.find(':', uColon + 1)) {
    size_t u = uColon + 1;
    while (u < svText.size() && IsKeyByte(svText[u]))
      ++u;
    if (u > uColon + 1 && u < svText.size() && svText[u] == '=')
      return uColon;
  }
  return std::string_view::npos;
}

}  // namespace

std::map<CPString, CPString> ParseLinkText(std::string_view svText) {
  std::map<CPString, CPString> values;
  for (size_t uBegin = 0; uBegin < svText.size();) {
    const size_t uEnd = NextPair(svText, uBegin);
    const std::string_view svPair =
        svText.substr(uBegin, uEnd == std::string_view::npos ? uEnd : uEnd - uBegin);
    const size_t uEqual = svPair.find('=');
    if (uEqual != std::string_view::npos && uEqual != 0)
      values[CPString(svPair.substr(0, uEqual))] = CPString(svPair.substr(uEqual + 1));
    if (uEnd == std::string_view::npos)
      break;
    uBegin = uEnd + 1;
  }
  return values;
}

std::map<CPString, CPString> ReadCloudLink() {
  const CLoaded library("libzxcloud.so");
  const auto pfn = library.Find<uint32_t (*)(char*, int)>("zxcloud_getopt");
  std::string strText(kLinkBytes, '\0');
  if (pfn == nullptr || pfn(strText.data(), kLinkBytes) != 0)
    return {};
  return ParseLinkText(strText.c_str());
}

CPString ReadMachineId() {
  const CLoaded library("libzxmid.so");
  const auto pfn = library.Find<int (*)(char*, int)>("mid");
  char szText[kMidBytes + 1] = {};
  return pfn != nullptr && pfn(szText, kMidBytes) == 0 ? CPString(szText) : CPString();
}
