# cmake -DOBJDUMP=... -DLIBRARY=... -DHEADER=... -P check_library_tables.cmake
# Fails unless the library exports exactly the functions that the public header declares, and needs
# no library but those that every Windows has. avrt.dll is not among these: it is loaded at run time.
cmake_policy(VERSION 3.25)

set(allowed advapi32.dll kernel32.dll msvcrt.dll ole32.dll user32.dll winmm.dll ws2_32.dll)

execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE tables COMMAND_ERROR_IS_FATAL ANY)

string(REGEX MATCHALL "DLL Name: [^\n]+" needed "${tables}")
list(TRANSFORM needed REPLACE "DLL Name: " "")
list(TRANSFORM needed TOLOWER)
set(foreign ${needed})
list(REMOVE_ITEM foreign ${allowed})
if(NOT "kernel32.dll" IN_LIST needed OR foreign)
  message(FATAL_ERROR "needs: ${needed}")
endif()

file(STRINGS ${HEADER} declarations REGEX "^TAVISTRO_API .*\\(")
list(TRANSFORM declarations REPLACE "^.*[ *]([a-z_]+)\\(.*$" "\\1" OUTPUT_VARIABLE declared)
string(REGEX REPLACE "^.*\\[Ordinal/Name Pointer\\] Table[^\n]*" "" names "${tables}")
string(REGEX REPLACE "\n\n.*$" "" names "${names}")
string(REGEX MATCHALL "\\[ *[0-9]+\\] [^\n]+" exported "${names}")
list(TRANSFORM exported REPLACE "^.* " "")  # a newer objdump has more columns before the name
list(SORT declared)
list(SORT exported)
list(LENGTH declared count)
if(NOT count EQUAL 5 OR NOT exported STREQUAL declared)
  message(FATAL_ERROR "exported: ${exported}\ndeclared: ${declared}")
endif()
