# What `cmake --install` and `cpack` take, and where to. Nothing installed knows the folder that it was
# built in or installed to: the whole tree can be moved.
#
# Components: runtime (the library and its driver without hardware), jack (the driver for JACK), alsa (those for
# sound cards), development, tools, services (Debian packages alone), documents.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

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
function(install_driver target component)
  if(TARGET ${target})
    install(TARGETS ${target} LIBRARY DESTINATION ${engine_dir}/${TAVISTRO_DRIVER_FOLDER}
                              COMPONENT ${component})
  endif()
endfunction()
install_driver(tavistro-test-driver runtime)
install_driver(tavistro-jack jack)
install_driver(tavistro-alsa alsa)

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

# Tools
if(TAVISTRO_TOOLS)
  if(NOT WIN32)
    set_target_properties(tavistro-host PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
    install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
  install(TARGETS ${tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES wireshark/tavistro.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/tavistro/wireshark COMPONENT tools)
  install(DIRECTORY prometheus DESTINATION ${CMAKE_INSTALL_DATADIR}/tavistro COMPONENT tools)
  # The licences of what is part of a tool come with it.
  foreach(library httplib uplot)
    install(FILES third_party/${library}/LICENSE
            DESTINATION ${CMAKE_INSTALL_DOCDIR}/third_party/${library} COMPONENT tools)
  endforeach()
endif()

# Services, in Debian packages alone: a unit names the folder of its program.
install(FILES services/tavistro-server.service services/tavistro-monitor.service services/tavistro-host@.service
        DESTINATION lib/systemd/system COMPONENT services EXCLUDE_FROM_ALL)
install(DIRECTORY services/default DESTINATION etc COMPONENT services EXCLUDE_FROM_ALL)
install(FILES examples/loopback.ini DESTINATION etc/tavistro COMPONENT services EXCLUDE_FROM_ALL)

# Documents, side by side as in the sources: their links lead to each other.
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents
        PATTERN man EXCLUDE)
# The README's links to the headers lead to where they are installed. How to change the project is no
# installed page, so the line that links to it is left out.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS README.md)
file(READ README.md readme)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_FULL_DOCDIR}
           OUTPUT_VARIABLE doc_to_include)
string(REPLACE "](include/" "](${doc_to_include}/" readme "${readme}")
string(REGEX REPLACE "\n\\| contributors \\|[^\n]*" "" readme "${readme}")
file(WRITE ${PROJECT_BINARY_DIR}/README.md "${readme}")
install(FILES ${PROJECT_BINARY_DIR}/README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT documents)
