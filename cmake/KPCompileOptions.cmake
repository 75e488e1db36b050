# Compiler settings of our own code. Third-party sources do not get them.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_OBJCXX_STANDARD 17)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)

# Warnings and instrumentation, for every target of ours.
add_library(kp_options INTERFACE)
target_compile_options(kp_options INTERFACE
  -Wall -Wextra -Wshadow -Wconversion $<$<BOOL:${KP_WERROR}>:-Werror>
  $<$<COMPILE_LANGUAGE:OBJCXX>:-fno-objc-arc>)
target_include_directories(kp_options INTERFACE "${CMAKE_SOURCE_DIR}")

set(KP_TARGET_IS_TEST "$<BOOL:$<TARGET_PROPERTY:KP_IS_TEST>>")
if(KP_SANITIZE)
  # Unit tests would take twice as long to compile with line tables and with the checks for undefined
  # behaviour. Reports show the functions of tests, and the lines of the product.
  target_compile_options(kp_options INTERFACE
    -fsanitize=${KP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<IF:${KP_TARGET_IS_TEST},-fno-sanitize=undefined,-gline-tables-only>)
  target_link_options(kp_options INTERFACE -fsanitize=${KP_SANITIZE})
endif()
if(KP_BUILD_FUZZERS)
  # libFuzzer is guided by the product's branches, not by those of the tests.
  set(KP_TARGET_IS_NOT_FUZZED "$<OR:${KP_TARGET_IS_TEST},$<BOOL:$<TARGET_PROPERTY:KP_NOT_FUZZED>>>")
  target_compile_options(kp_options INTERFACE $<$<NOT:${KP_TARGET_IS_NOT_FUZZED}>:-fsanitize=fuzzer-no-link>)
  target_link_options(kp_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(KP_COVERAGE)
  target_compile_definitions(kp_options INTERFACE KP_COVERAGE)
  target_compile_options(kp_options INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(kp_options INTERFACE -fprofile-instr-generate)
endif()

# Links LIBRARY whole: categories, and objects that only work when they are constructed, are
# reached by no symbol, so an archive member that holds only them would be left out.
function(kp_link_whole TARGET SCOPE)
  foreach(LIBRARY IN LISTS ARGN)
    target_link_libraries(${TARGET} ${SCOPE} "$<LINK_LIBRARY:WHOLE_ARCHIVE,${LIBRARY}>")
  endforeach()
endfunction()
