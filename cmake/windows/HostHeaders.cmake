# tavistro_host_headers(target folder header): an imported target for a library that is headers alone, so
# that the build machine's can be used. It sees that folder of headers and nothing beside it. For find
# modules: sets what they set.
function(tavistro_host_headers target folder header)
  find_path(${folder}_HEADERS NAMES ${folder}/${header} NO_CMAKE_FIND_ROOT_PATH)
  if(NOT ${folder}_HEADERS)
    return()
  endif()
  set(only_this ${PROJECT_BINARY_DIR}/host-headers/${folder})
  file(MAKE_DIRECTORY ${only_this})
  file(CREATE_LINK ${${folder}_HEADERS}/${folder} ${only_this}/${folder} SYMBOLIC)
  if(NOT TARGET ${target})
    add_library(${target} INTERFACE IMPORTED GLOBAL)
    target_include_directories(${target} SYSTEM INTERFACE ${only_this})
  endif()
  set(${CMAKE_FIND_PACKAGE_NAME}_FOUND TRUE PARENT_SCOPE)
endfunction()
