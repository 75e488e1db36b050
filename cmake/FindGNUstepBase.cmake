# GNUstep::Base: Foundation on Linux, with clang and GCC's Objective-C runtime.
find_program(GNUSTEP_CONFIG gnustep-config)
find_library(GNUSTEP_BASE_LIBRARY gnustep-base)
find_library(GNUSTEP_OBJC_LIBRARY objc
  PATH_SUFFIXES gcc/x86_64-linux-gnu/12 gcc/aarch64-linux-gnu/12)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(GNUstepBase
  REQUIRED_VARS GNUSTEP_CONFIG GNUSTEP_BASE_LIBRARY GNUSTEP_OBJC_LIBRARY)

if(GNUstepBase_FOUND AND NOT TARGET GNUstep::Base)
  execute_process(COMMAND "${GNUSTEP_CONFIG}" --objc-flags
    OUTPUT_VARIABLE GNUSTEP_FLAGS OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  # gnustep-config succeeds and prints nothing when it finds no make(1). Without these flags
  # string constants would be of a class that Foundation does not know.
  if(NOT GNUSTEP_FLAGS MATCHES "-fconstant-string-class")
    message(FATAL_ERROR "${GNUSTEP_CONFIG} --objc-flags gives no flags: is make installed?")
  endif()
  separate_arguments(GNUSTEP_FLAGS UNIX_COMMAND "${GNUSTEP_FLAGS}")
  # Keeps only flags that change the meaning of the sources: the build itself sets optimisation,
  # warnings and dependency files.
  list(FILTER GNUSTEP_FLAGS INCLUDE REGEX
    "^(-D|-fno-strict-aliasing|-fexceptions|-fobjc-exceptions|-fconstant-string-class|-pthread)")
  # clang refuses it for plain C++, in which tests link Foundation too.
  list(TRANSFORM GNUSTEP_FLAGS REPLACE "^-fobjc-exceptions$"
    "$<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-exceptions>")
  # The Objective-C runtime's headers are in GCC's folder, which must not hide clang's own headers.
  get_filename_component(OBJC_LIBRARY_DIR "${GNUSTEP_OBJC_LIBRARY}" DIRECTORY)

  add_library(GNUstep::Base INTERFACE IMPORTED)
  set_target_properties(GNUstep::Base PROPERTIES
    INTERFACE_COMPILE_OPTIONS "${GNUSTEP_FLAGS};SHELL:-idirafter ${OBJC_LIBRARY_DIR}/include"
    INTERFACE_INCLUDE_DIRECTORIES "/usr/include/GNUstep"
    INTERFACE_LINK_LIBRARIES "${GNUSTEP_BASE_LIBRARY};${GNUSTEP_OBJC_LIBRARY};pthread;m"
    INTERFACE_LINK_OPTIONS "-fexceptions;-rdynamic")
endif()
