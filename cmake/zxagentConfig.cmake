# find_package(zxagent): what a component needs, from the tree that this file was installed in.
#   zxagent::component   the kit: component class, hand-off texts, main of a process
#   zx_add_component(hello SOURCES hello.cpp [LIBS ...])   lib<name>.so for the host, and the program <name>
get_filename_component(ZXAGENT_HOME "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
set(_zx_include "${ZXAGENT_HOME}/include/zxagent")

include(CMakeFindDependencyMacro)
find_dependency(Threads)

foreach(_zx_lib zxplatform zxbus)
  if(NOT TARGET zxagent::${_zx_lib})
    add_library(zxagent::${_zx_lib} SHARED IMPORTED)
    set_target_properties(zxagent::${_zx_lib} PROPERTIES
      IMPORTED_LOCATION "${ZXAGENT_HOME}/lib/lib${_zx_lib}.so"
      INTERFACE_INCLUDE_DIRECTORIES "${_zx_include}")
  endif()
endforeach()
if(NOT TARGET zxagent::component)
  add_library(zxagent::component STATIC IMPORTED)
  set_target_properties(zxagent::component PROPERTIES
    IMPORTED_LOCATION "${ZXAGENT_HOME}/lib/libzxcomponent.a"
    INTERFACE_INCLUDE_DIRECTORIES "${_zx_include}"
    INTERFACE_COMPILE_FEATURES cxx_std_20
    INTERFACE_LINK_LIBRARIES "zxagent::zxbus;zxagent::zxplatform;Threads::Threads")
endif()

function(zx_add_component name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} MODULE ${arg_SOURCES})
  add_executable(${name}_process ${arg_SOURCES})
  target_compile_definitions(${name}_process PRIVATE ZX_COMPONENT_PROCESS)
  set_target_properties(${name}_process PROPERTIES OUTPUT_NAME ${name})
  foreach(target ${name} ${name}_process)
    target_link_libraries(${target} PRIVATE zxagent::component ${arg_LIBS})
    # Nothing but what ZX_COMPONENT exports may be seen of a plug-in.
    set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
      BUILD_RPATH "${ZXAGENT_HOME}/lib")
  endforeach()
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/..")
  set_target_properties(${name}_process PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")
  install(TARGETS ${name} LIBRARY DESTINATION lib/plugins)
  install(TARGETS ${name}_process RUNTIME DESTINATION bin)
endfunction()
