# cmake -DNM=... -DLIBRARY=... -DHEADER=... -P check_exports.cmake
# Fails unless the library exports exactly the functions that the public header declares.
file(STRINGS ${HEADER} declarations REGEX "^TAVISTRO_API .*\\(")
list(TRANSFORM declarations REPLACE "^.*[ *]([a-z_]+)\\(.*$" "\\1" OUTPUT_VARIABLE declared)

execute_process(COMMAND ${NM} -D --defined-only --format=just-symbols ${LIBRARY}
                OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" exported "${output}")

list(SORT declared)
list(SORT exported)
list(LENGTH declared count)
if(NOT count EQUAL 5 OR NOT exported STREQUAL declared)
  message(FATAL_ERROR "exported: ${exported}\ndeclared: ${declared}")
endif()
