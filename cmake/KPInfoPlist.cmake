# kp_info_plist(TARGET [DESTINATION FOLDER]): adds to an executable outside of a bundle the
# information dictionary of its main bundle, with the product version in it.
#
# On macOS the list is a section of the executable, where the system looks for it.
# GNUstep reads Resources/TARGET/Info-gnustep.plist beside the executable instead, so
# the two are moved together; FOLDER is where TARGET is installed.
function(kp_info_plist TARGET)
  cmake_parse_arguments(PLIST "" "DESTINATION" "" ${ARGN})
  set(INFO_PLIST_NAME "${TARGET}")
  if(APPLE)
    set(INFO_PLIST "${CMAKE_CURRENT_BINARY_DIR}/${TARGET}-Info.plist")
    target_link_options(${TARGET} PRIVATE
      "LINKER:-sectcreate,__TEXT,__info_plist,${INFO_PLIST}")
    set_property(TARGET ${TARGET} APPEND PROPERTY LINK_DEPENDS "${INFO_PLIST}")
  else()
    get_target_property(FOLDER ${TARGET} RUNTIME_OUTPUT_DIRECTORY)
    set(INFO_PLIST "${FOLDER}/Resources/${TARGET}/Info-gnustep.plist")
    if(PLIST_DESTINATION)
      install(FILES "${INFO_PLIST}" DESTINATION "${PLIST_DESTINATION}/Resources/${TARGET}")
    endif()
  endif()
  configure_file("${CMAKE_SOURCE_DIR}/cmake/Info.plist.in" "${INFO_PLIST}" @ONLY)
endfunction()
