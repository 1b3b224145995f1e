// ZX_API marks what a shared library of the installed tree exports; everything else stays hidden.
#pragma once

#define ZX_API __attribute__((visibility("default")))
