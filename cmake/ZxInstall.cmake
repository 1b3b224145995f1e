# The installed tree is the home: libzxagent.so at its top, everything else beside it.
set(ZX_INSTALL_LIB lib)
set(ZX_INSTALL_MODULES lib/modules)
set(ZX_INSTALL_PLUGINS lib/plugins)
set(ZX_INSTALL_BIN bin)
set(ZX_INSTALL_ETC etc)
set(ZX_INSTALL_INCLUDE include/zxagent)

install(DIRECTORY DESTINATION log DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/packaging/etc/ DESTINATION ${ZX_INSTALL_ETC})
