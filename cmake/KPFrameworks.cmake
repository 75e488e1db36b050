# kp_host: the macOS frameworks that the product uses, and the rules of the oldest
# release that the build is for.

# Before 10.9 a program cannot count on libc++. Of the C++ library only the memory operators and the
# run-time support are linked, which GCC's library has too; the headers are the SDK's.
if(CMAKE_OSX_DEPLOYMENT_TARGET AND CMAKE_OSX_DEPLOYMENT_TARGET VERSION_LESS 10.9)
  add_link_options(-stdlib=libstdc++)
  # Its delete operators take neither a size nor an alignment.
  add_compile_options(
    $<$<COMPILE_LANGUAGE:CXX,OBJCXX>:-fno-sized-deallocation>
    $<$<COMPILE_LANGUAGE:CXX,OBJCXX>:-fno-aligned-allocation>)
else()
  add_link_options(-stdlib=libc++)
endif()

target_compile_options(kp_options INTERFACE
  # Every use of an API that is newer than the deployment target is an error.
  -Wunguarded-availability
  # The product uses 10.6's API, also where it has been replaced since.
  -Wno-deprecated-declarations)

add_library(kp_host INTERFACE)
target_link_libraries(kp_host INTERFACE
  "-framework Foundation"
  "-framework CoreFoundation"
  "-framework SystemConfiguration"
  "-framework Security"
  "-framework ServiceManagement")
target_link_options(kp_host INTERFACE
  # A framework from which an executable imports nothing is not loaded.
  LINKER:-dead_strip_dylibs)

# The elevated launch uses ServiceManagement, which macOS has since 10.6; an SDK with only a few
# frameworks lacks it.
find_path(KP_SERVICE_MANAGEMENT_HEADERS ServiceManagement/ServiceManagement.h)
if(NOT KP_SERVICE_MANAGEMENT_HEADERS)
  target_include_directories(kp_host SYSTEM INTERFACE
    "${CMAKE_SOURCE_DIR}/shared/platform/mac/compat")
endif()

# kp_use_cxx_library(TARGET): for an engineer's tool, which does not run on customers'
# machines and may use the C++ library freely. It asks for a release that has libc++
# with all of C++17.
function(kp_use_cxx_library TARGET)
  target_compile_options(${TARGET} PRIVATE -mmacosx-version-min=10.15)
  target_link_options(${TARGET} PRIVATE -mmacosx-version-min=10.15 -stdlib=libc++)
endfunction()

# kp_use_libcxx_here(): links the tests of a folder and its subfolders with libc++, whose headers
# they are compiled with. They require the same macOS release as the product, because its code must
# not find a newer one. Before 10.7 they need a libc++ beside the system's libraries.
macro(kp_use_libcxx_here)
  add_link_options(-stdlib=libc++)
endmacro()
