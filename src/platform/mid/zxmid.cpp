#include "platform/mid/zxmid.h"

#include <exception>

#include "platform/mid/MidLibrary.h"

namespace {

// Constructed on first use and never destroyed: callers may outlive the statics of this library.
CMidLibrary& Library() {
  static CMidLibrary* s_pLibrary = new CMidLibrary("");
  return *s_pLibrary;
}

// Nothing thrown leaves the library.
template <class F>
int Guarded(F&& call) {
  try {
    return call();
  } catch (const std::exception&) {
    return kMidErrInternal;
  }
}

}  // namespace

int zxmid_init(const zxmid_settings* settings) {
  return Guarded([&] { return Library().Init(settings); });
}

int zxmid_param(const char* key, int, int) {
  return Guarded([&] { return Library().Param(key); });
}

int mid(char* buffer, int capacity) {
  return Guarded([&] { return Library().Get("mid", &CMidDerive::Mid, true, buffer, capacity); });
}

int mid2(char* buffer, int capacity) {
  return Guarded([&] { return Library().Get("mid2", &CMidDerive::Mid2, true, buffer, capacity); });
}

int zxmid_getmid2sn(char* buffer, int capacity) {
  return Guarded([&] { return Library().Get("mid2sn", &CMidDerive::Sn, false, buffer, capacity); });
}

int zxmid_getmid2disk(char* buffer, int capacity) {
  return Guarded([&] { return Library().Get("mid2disk", &CMidDerive::Disk, false, buffer, capacity); });
}

int zxmid_getmid2mac(char* buffer, int capacity) {
  return Guarded([&] { return Library().Get("mid2mac", &CMidDerive::Mac, false, buffer, capacity); });
}
