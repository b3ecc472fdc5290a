# tavistro_version_source(target template.in): a source of the target that shows the version and the commit.
# Each build asks for the commit and writes the file when it is another one, so that nothing else is
# compiled again.
find_package(Git QUIET)
function(tavistro_version_source target template)
  cmake_path(GET template STEM LAST_ONLY name)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${name})
  add_custom_target(${target}_version
    COMMAND ${CMAKE_COMMAND} -DGIT=${GIT_EXECUTABLE} -DSOURCES=${PROJECT_SOURCE_DIR}
            -DPROJECT_VERSION=${PROJECT_VERSION} -DPROJECT_DESCRIPTION=${PROJECT_DESCRIPTION}
            -DTEMPLATE=${CMAKE_CURRENT_SOURCE_DIR}/${template} -DSOURCE=${source}
            -P ${PROJECT_SOURCE_DIR}/cmake/write_version.cmake
    BYPRODUCTS ${source} VERBATIM)
  target_sources(${target} PRIVATE ${source})
  add_dependencies(${target} ${target}_version)
endfunction()
