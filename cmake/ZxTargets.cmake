# Everything of the agent but its plug-in frame: what libzxagent.so and tests of the whole manager link.
set(ZX_AGENT_CORE
  agent_mgr agent_asset agent_cache agent_maint agent_receive agent_send agent_data agent_registry agent_system
  agent_base)

# With sanitizers the product's own files share a precompiled header too: nobody ships them, and a build from
# nothing is a fifth shorter. The other presets show what a file forgot to include.
if(ZX_PCH AND ZX_SANITIZE AND NOT ZX_FUZZ)
  # Written once: a newer file would be compiled again after every configuration.
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/product_pch.cpp CONTENT "// Carries the precompiled header; nothing else.\n")
  add_library(product_pch OBJECT ${CMAKE_BINARY_DIR}/product_pch.cpp)
  target_link_libraries(product_pch PRIVATE zx_warnings zx_flags Threads::Threads)
  target_precompile_headers(product_pch PRIVATE
    <algorithm> <atomic> <deque> <filesystem> <functional> <map> <memory> <optional> <set> <string> <string_view>
    <unordered_map> <utility> <vector>)
endif()
function(zx_product_pch name)
  if(TARGET product_pch)
    target_precompile_headers(${name} REUSE_FROM product_pch)
  endif()
endfunction()

# One OBJECT library per folder: members that nobody calls yet (dormant threads, operations for other
# modules) stay in the library, which an archive would drop.
#   zx_objects(agent_data SOURCES a.cpp b.cpp LIBS zxplatform)
function(zx_objects name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} OBJECT ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC zx_warnings zx_flags Threads::Threads ${arg_LIBS})
  zx_product_pch(${name})
endfunction()

# A platform library of the installed tree: lib/lib<name>.so, soname without version.
#   zx_shared(zxbus SOURCES ... LIBS ... EXPORTS exports.map)
function(zx_shared name)
  cmake_parse_arguments(arg "" "EXPORTS" "SOURCES;LIBS;PRIVATE_LIBS" ${ARGN})
  add_library(${name} SHARED ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC zx_flags Threads::Threads ${arg_LIBS} PRIVATE zx_warnings ${arg_PRIVATE_LIBS})
  zx_product_pch(${name})
  if(arg_EXPORTS)
    set(map ${CMAKE_CURRENT_SOURCE_DIR}/${arg_EXPORTS})
    target_link_options(${name} PRIVATE -Wl,--version-script=${map})
    set_target_properties(${name} PROPERTIES LINK_DEPENDS ${map})
  endif()
  set_target_properties(${name} PROPERTIES NO_SONAME OFF INSTALL_RPATH "$ORIGIN")
endfunction()

# A gtest binary; every case becomes one ctest entry, so cases run in parallel and in any order.
# FIXTURES home: the installed tree of this build stands in <build>/tests/home.
#   zx_test(unit_text SOURCES PString_test.cpp LIBS zxplatform [LABELS ...])
function(zx_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT;FIXTURES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE zx_warnings zx_flags ${arg_LIBS} GTest::gmock GTest::gtest_main)
  if(ZX_PCH)
    target_precompile_headers(${name} REUSE_FROM test_pch)
  endif()
  include(GoogleTest)
  # An empty value would shift the name of the next property into its place.
  set(properties TIMEOUT ${arg_TIMEOUT})
  foreach(pair LABELS:LABELS ENVIRONMENT:ENVIRONMENT FIXTURES:FIXTURES_REQUIRED)
    string(REPLACE ":" ";" pair ${pair})
    list(POP_FRONT pair argument property)
    if(arg_${argument})
      list(APPEND properties ${property} "${arg_${argument}}")
    endif()
  endforeach()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()

# A fuzz entry (LLVMFuzzerTestOneInput) for one parser of foreign bytes. With ZX_FUZZ it becomes a libFuzzer
# binary; always, its corpus folder runs as a plain test.
#   zx_fuzz(fuzz_json SOURCES json_fuzz.cpp CORPUS corpus/json LIBS zxplatform)
function(zx_fuzz name)
  cmake_parse_arguments(arg "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  if(ZX_FUZZ)
    add_executable(${name} ${arg_SOURCES})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE fuzz_replay)
  endif()
  target_link_libraries(${name} PRIVATE zx_warnings zx_flags ${arg_LIBS})
  if(ZX_FUZZ)
    add_test(NAME ${name} COMMAND ${name} -runs=20000 -max_total_time=20 ${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS})
  else()
    add_test(NAME ${name} COMMAND ${name} ${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS})
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT 120 LABELS fuzz)
endfunction()
