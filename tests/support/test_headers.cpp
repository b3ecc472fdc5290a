// Builds the precompiled header of all tests (cmake/TavistroTargets.cmake).
