# GoogleTest from its sources: the installed libraries are the build machine's.
find_path(GOOGLETEST_SOURCE_DIR NAMES googletest/CMakeLists.txt PATH_SUFFIXES src/googletest
          NO_CMAKE_FIND_ROOT_PATH)
if(GOOGLETEST_SOURCE_DIR AND NOT TARGET GTest::gtest_main)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(${GOOGLETEST_SOURCE_DIR} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()
if(TARGET GTest::gtest_main)
  set(GTest_FOUND TRUE)
endif()
