#include "LogCache.h"
#include "kit/ComponentMain.h"

ZX_COMPONENT(zxlogcache::CLogCache)
