# What `cpack` makes of the installed components: Debian packages, one each, or one .zip for Windows.

set(CPACK_PACKAGE_VENDOR Tavistro)
set(CPACK_PACKAGE_CONTACT "Tavistro maintainers <maintainers@tavistro.invalid>" CACHE STRING
    "Whom packages name as their maintainer")
set(CPACK_COMPONENTS_ALL runtime development documents)
if(TAVISTRO_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  if(NOT WIN32)
    list(APPEND CPACK_COMPONENTS_ALL services)
  endif()
endif()
if(TAVISTRO_JACK)
  list(APPEND CPACK_COMPONENTS_ALL jack)
endif()
if(TAVISTRO_ALSA)
  list(APPEND CPACK_COMPONENTS_ALL alsa)
endif()
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME windows-x86_64)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)  # these components only
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
  # Dependencies by what the programs and libraries really need. The project's own library belongs to
  # no installed package yet: it is found in the build folder, and the dependency stands here.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")  # the soname tells what is compatible
  set(runtime_package libtavistro-engine${PROJECT_VERSION_MAJOR})
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
  set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

  # tavistro_package(component name section "short description" "its sentences" ["dependencies"])
  function(tavistro_package component name section summary text)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${ARGN}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${upper}_DESCRIPTION
        "networked low-latency audio client engine: ${summary}\nTavistro plays a server's audio on an ASIO device from a buffer that\nfollows the server's clock, and sends the captured input back.\n.\n${text}"
        PARENT_SCOPE)
  endfunction()

  tavistro_package(runtime ${runtime_package} libs "library"
                   "This package has the library and a driver without hardware.")
  # Debian's way to run ldconfig.
  file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
  # Packages of their own: the library does without JACK and ALSA. Those of library and JACK carry the major
  # version in their name and in that of each of their files, so that several versions can be installed.
  tavistro_package(jack ${runtime_package}-jack sound "driver for JACK"
                   "This package has the driver that plays on JACK and PipeWire."
                   "${runtime_package} ${same_version}")
  tavistro_package(alsa tavistro-driver-alsa sound "drivers for sound cards"
                   "This package has the drivers that play on sound cards without a server."
                   "${runtime_package} ${same_version}")
  tavistro_package(development libtavistro-engine-dev libdevel "development files"
                   "This package has the headers and the files for CMake and pkg-config."
                   "${runtime_package} ${same_version}")
  tavistro_package(tools tavistro-tools sound "server, console host, monitor"
                   "This package has the programs, and what shows their numbers in other tools."
                   "${runtime_package} ${same_version}")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS tavistro-doc)
  tavistro_package(services tavistro-services sound "systemd services"
                   "This package starts server, monitor and engines at boot, each as a user\nof its own."
                   "tavistro-tools ${same_version}, systemd")
  set(CPACK_DEBIAN_SERVICES_PACKAGE_ARCHITECTURE all)
  set(debian ${PROJECT_SOURCE_DIR}/services/debian)
  set(CPACK_DEBIAN_SERVICES_PACKAGE_CONTROL_EXTRA ${debian}/conffiles ${debian}/postinst ${debian}/prerm
                                                  ${debian}/postrm)
  tavistro_package(documents tavistro-doc doc "documents, examples"
                   "This package has the documents, and configurations and hosts as examples.")
  set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_ARCHITECTURE all)

  set(CPACK_TAVISTRO_SOURCES ${PROJECT_SOURCE_DIR})
  set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianExtras.cmake)
endif()

include(CPack)
