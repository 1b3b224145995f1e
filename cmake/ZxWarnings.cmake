# Warnings are errors. Each flag beyond -Wall -Wextra stands with the defect it has to catch.
add_library(zx_warnings INTERFACE)
target_compile_options(zx_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow                 # a member hidden by a local of the same name
  -Wnon-virtual-dtor       # deleting through an interface without a virtual destructor
  -Woverloaded-virtual     # a bus or cloud callback that silently stops overriding
  -Wold-style-cast         # casts that hide a lost const or a pointer truncation
  -Wcast-align             # records read from the wire at odd addresses
  -Wformat=2               # run-time texts used as a format
  -Wimplicit-fallthrough
  -Wundef
  -Wvla                    # unbounded stack in threads with small stacks
  $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond>)
if(ZX_THREAD_SAFETY)
  target_compile_options(zx_warnings INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()

# Flags that are not warnings but hold for every target.
add_library(zx_flags INTERFACE)
target_compile_options(zx_flags INTERFACE
  -fstack-protector-strong
  # GNU-unique symbols would keep libzxagent.so mapped after dlclose.
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>
  $<$<CONFIG:RelWithDebInfo>:-U_FORTIFY_SOURCE>
  $<$<CONFIG:RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
target_link_options(zx_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)
target_include_directories(zx_flags INTERFACE ${CMAKE_SOURCE_DIR}/src)
