# ctest reads this, not CMake: see CMakeLists.txt.
if(DEFINED ENV{KP_EVERY_BUILD})
  get_filename_component(ASAN_BUILD "${CMAKE_CURRENT_LIST_DIR}/../build/asan" ABSOLUTE)
  if(EXISTS "${ASAN_BUILD}/CTestTestfile.cmake")
    subdirs("${ASAN_BUILD}")
  else()
    add_test(asan/build-is-missing false)
  endif()
endif()
