# The packages that cpack makes: a Debian package and a tarball that runs from any folder.
set(CPACK_PACKAGE_NAME kpinstallmanager)
set(CPACK_PACKAGE_VENDOR "Tarvix")
set(CPACK_PACKAGE_CONTACT "Installer engineering <installers@tarvix.example>" CACHE STRING
  "Who answers for the packages")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Finalizer of the Korvel Player installer, and its blob tool")
# In lines of less than 80 characters: Debian's tools show them unchanged. Lines that begin with a
# blank are not joined.
set(CPACK_PACKAGE_DESCRIPTION
  "kpim packs, lists, verifies and unpacks the payload blobs of the Korvel Player
installer, runs its install checks and fetches the current version
description. The finalizer is what the installer runs: it unpacks the blob
into the plug-in's bundle, removes what is obsolete, reports the install and
writes a log of it.

This build uses these hosts of the vendor:
 download server: ${KP_DOWNLOAD_HOST}
 web site: ${KP_VENDOR_WEB_HOST}
 uninstaller: ${KP_UNINSTALLER_URL}
kpim --version prints them.")
set(CPACK_RESOURCE_FILE_LICENSE "${CMAKE_SOURCE_DIR}/LICENSE")
set(CPACK_PACKAGE_FILE_NAME
  "${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}")
set(CPACK_OUTPUT_FILE_PREFIX "${CMAKE_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
# Folders that all users may enter, whatever the umask of the build.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_SOURCE_DIR}/cmake/KPDebianLayout.cmake")

set(CPACK_GENERATOR TGZ)
if(NOT APPLE)
  list(APPEND CPACK_GENERATOR DEB)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# The libraries, as the linked files name them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Packages that no linked file names; the first request loads libcurl.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ca-certificates, libcurl4 (>= 7.87)")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Keeps a $ in an address unexpanded.
set(CPACK_VERBATIM_VARIABLES YES)
include(CPack)
