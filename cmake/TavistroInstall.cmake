# What `cmake --install` and `cpack` take, and where to. Nothing installed knows the folder that it was
# built in or installed to: the whole tree can be moved.
#
# Components: runtime (the library and its drivers), development, tools.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The ASIO drivers of the project. Each is installed to asio-drivers/ beside the engine library, where
# an engine on Linux looks for drivers.
set(drivers tavistro-test-driver tavistro-jack)
set(tools tavistro-server tavistro-host tavistro-monitor)

if(WIN32)
  set(engine_dir ${CMAKE_INSTALL_BINDIR})  # a program finds its libraries in its own folder
else()
  set(engine_dir ${CMAKE_INSTALL_LIBDIR})
endif()
set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tavistro)

# To the library, from the folder of the tools; to the prefix, from that of tavistro.pc.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_FULL_BINDIR}
           OUTPUT_VARIABLE bin_to_lib)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
           BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE pc_to_prefix)

# Library and drivers
install(TARGETS tavistro_engine EXPORT tavistro
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(driver IN LISTS drivers)
  if(TARGET ${driver})
    install(TARGETS ${driver} LIBRARY DESTINATION ${engine_dir}/asio-drivers COMPONENT runtime)
  endif()
endforeach()

# Development
install(DIRECTORY include/tavistro DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
# The file of the exported target is the whole package: it needs no other package. Not
# "tavistro-config.cmake", which would read every file whose name begins with "tavistro-config-".
install(EXPORT tavistro FILE tavistroConfig.cmake NAMESPACE tavistro:: DESTINATION ${cmake_dir}
        COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavistroConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavistroConfigVersion.cmake DESTINATION ${cmake_dir}
        COMPONENT development)
configure_file(cmake/tavistro.pc.in tavistro.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavistro.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
install(FILES docs/hosting.md docs/protocol.md docs/security.md docs/threads.md docs/windows.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

# Tools, and what their users read
if(TAVISTRO_BUILD_TOOLS)
  if(NOT WIN32)
    set_target_properties(tavistro-host PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
    install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
  install(TARGETS ${tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/tavistro COMPONENT tools
          FILES_MATCHING PATTERN "*.ini")
  install(FILES CHANGELOG.md docs/configuration.md docs/jack.md docs/networks.md
              docs/drift.md docs/latency.md docs/troubleshooting.md
          DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)
endif()
