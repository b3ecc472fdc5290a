# cmake -DGIT=... -DSOURCES=... -DPROJECT_VERSION=... -DPROJECT_DESCRIPTION=... -DTEMPLATE=... -DSOURCE=...
#       -P write_version.cmake
# Fills a template in: @TAVISTRO_VERSION@ is "5.0.0 (e6f8abf)", with "-dirty" when files are changed, and
# the version alone where the commit is not known.
cmake_policy(VERSION 3.25)

set(commit "")
if(EXISTS ${SOURCES}/.git)
  if(GIT)
    execute_process(COMMAND ${GIT} -C ${SOURCES} describe --always --exclude=* --dirty
                    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
else()  # an archive made by git, which filled this file in
  file(STRINGS ${SOURCES}/cmake/commit.txt commit REGEX "^[0-9a-f]+$")
endif()
set(TAVISTRO_VERSION ${PROJECT_VERSION})
if(commit)
  string(APPEND TAVISTRO_VERSION " (${commit})")
endif()
string(REPLACE "." ", " TAVISTRO_VERSION_NUMBERS ${PROJECT_VERSION})
configure_file(${TEMPLATE} ${SOURCE} @ONLY)
