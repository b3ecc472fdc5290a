# What `cpack` makes of the installed components: Debian packages, one each, or one .zip for Windows.

set(CPACK_PACKAGE_VENDOR Tavistro)
set(CPACK_PACKAGE_CONTACT "Tavistro maintainers <maintainers@tavistro.invalid>" CACHE STRING
    "Whom packages name as their maintainer")
set(CPACK_COMPONENTS_ALL runtime development documents)
if(TAVISTRO_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TAVISTRO_JACK)
  list(APPEND CPACK_COMPONENTS_ALL jack)
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
  # One line each, which package tools show in lists: a summary for all would stand in its place.
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
  set(engine "networked low-latency audio client engine")
  set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
  set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${engine}: library")

  # A package of its own: the library does without JACK. Both carry the major version in their name and
  # in that of each of their files, so that several versions can be installed.
  set(CPACK_DEBIAN_JACK_PACKAGE_NAME ${runtime_package}-jack)
  set(CPACK_DEBIAN_JACK_PACKAGE_SECTION sound)
  set(CPACK_DEBIAN_JACK_PACKAGE_DEPENDS "${runtime_package} ${same_version}")
  set(CPACK_COMPONENT_JACK_DESCRIPTION "${engine}: driver for JACK")

  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavistro-engine-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} ${same_version}")
  set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${engine}: headers, CMake and pkg-config files")

  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tavistro-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION sound)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_package} ${same_version}")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS tavistro-doc)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${engine}: server, console host, monitor")

  set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_NAME tavistro-doc)
  set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_SECTION doc)
  set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_ARCHITECTURE all)
  set(CPACK_COMPONENT_DOCUMENTS_DESCRIPTION "${engine}: documents, examples")
endif()

include(CPack)
