# Runs before cpack makes Debian packages of the installed components: adds what only packages have.
cmake_policy(VERSION 3.25)

string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(documents ${root}/usr/share/doc/${package})
  file(MAKE_DIRECTORY ${documents})
  file(READ ${CPACK_TAVISTRO_SOURCES}/cmake/copyright copyright)
  if(component STREQUAL tools)
    foreach(library httplib uplot)
      file(STRINGS ${CPACK_TAVISTRO_SOURCES}/third_party/${library}/LICENSE lines)
      string(APPEND copyright "\nFiles: tavistro-monitor (parts of third_party/${library})\n")
      list(FILTER lines INCLUDE REGEX "^Copyright")
      string(APPEND copyright "${lines}\nLicense: Expat\n")
    endforeach()
  endif()
  file(WRITE ${documents}/copyright "${copyright}")
  file(WRITE ${documents}/changelog.Debian
       "tavistro (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
       "  * See changelog.gz of tavistro-doc, or the project's CHANGELOG.md.\n\n"
       " -- ${CPACK_PACKAGE_CONTACT}  ${now}\n")
  execute_process(COMMAND gzip -9n ${documents}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
endforeach()

file(GLOB pages ${CPACK_TEMPORARY_DIRECTORY}/tools/usr/share/man/man1/*.1)
execute_process(COMMAND gzip -9n ${pages} COMMAND_ERROR_IS_FATAL ANY)

# Configuration is not below /usr.
file(RENAME ${CPACK_TEMPORARY_DIRECTORY}/services/usr/etc ${CPACK_TEMPORARY_DIRECTORY}/services/etc)
