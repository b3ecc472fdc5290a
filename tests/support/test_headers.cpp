// Its headers are precompiled for all tests: cmake/TavistroTargets.cmake.
