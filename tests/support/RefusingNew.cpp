#include "support/RefusingNew.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool t_bRefuse = false;

void* Allocate(size_t uSize) {
  if (void* p = std::malloc(uSize > 0 ? uSize : 1))
    return p;
  throw std::bad_alloc();
}

}  // namespace

CRefuseNew::CRefuseNew() {
  t_bRefuse = true;
}

CRefuseNew::~CRefuseNew() {
  t_bRefuse = false;
}

void* operator new(size_t uSize) {
  return Allocate(uSize);
}
void* operator new[](size_t uSize) {
  return Allocate(uSize);
}
void* operator new(size_t uSize, const std::nothrow_t&) noexcept {
  return t_bRefuse ? nullptr : std::malloc(uSize);
}
void* operator new[](size_t uSize, const std::nothrow_t&) noexcept {
  return t_bRefuse ? nullptr : std::malloc(uSize);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
