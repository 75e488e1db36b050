# Included before Objective-C++ is enabled, which fails with other compilers and does not mention
# clang.
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR
    "This project is built with clang++, not with ${CMAKE_CXX_COMPILER} (${CMAKE_CXX_COMPILER_ID}): "
    "other compilers mistranslate parts of Objective-C++. Configure with a preset:\n"
    "  cmake --preset release\n"
    "or name the compilers:\n"
    "  cmake --fresh -B ${CMAKE_BINARY_DIR} -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++\n")
endif()
