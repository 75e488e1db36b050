# cpack runs this over the files before it packages them: it changes them as Debian's policy
# requires. Other packages than Debian's stay as they were installed.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

# Without the file's name and time, so that the same content results in the same file.
function(kp_compress)
  execute_process(COMMAND gzip -9n ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(SHARE "${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX}/share")
set(DOC "${SHARE}/doc/${CPACK_PACKAGE_NAME}")

file(GLOB PAGES "${SHARE}/man/man*/*")
kp_compress(${PAGES})

# Debian's zsh keeps the completions of packages apart from those of administrators.
file(RENAME "${SHARE}/zsh/site-functions" "${SHARE}/zsh/vendor-completions")

# The license is in /usr/share/common-licenses, as the copyright file says. The README links to it.
file(REMOVE "${DOC}/LICENSE")
file(CREATE_LINK "/usr/share/common-licenses/Apache-2.0" "${DOC}/LICENSE" SYMBOLIC)

# The newest section of CHANGELOG.md in Debian's own format, see deb-changelog(5).
file(READ "${DOC}/CHANGELOG.md" HISTORY)
string(FIND "${HISTORY}" "\n## " BEGIN)
set(SECTION "")
if(NOT BEGIN EQUAL -1)
  string(SUBSTRING "${HISTORY}" ${BEGIN} -1 SECTION)
endif()
string(FIND "${SECTION}" "\n## " END REVERSE)
while(END GREATER 0)
  string(SUBSTRING "${SECTION}" 0 ${END} SECTION)
  string(FIND "${SECTION}" "\n## " END REVERSE)
endwhile()
string(REPLACE "." "\\." VERSION "${CPACK_PACKAGE_VERSION}")
if(NOT SECTION MATCHES "^\n## ${VERSION} \\(([^)\n]+)\\)\n\n(- .*[^\n])\n*$")
  message(FATAL_ERROR
    "CHANGELOG.md does not begin with \"## ${CPACK_PACKAGE_VERSION} (DATE)\" and its items")
endif()
set(ITEMS "${CMAKE_MATCH_2}")
set(DISTRIBUTION unstable)
if(CMAKE_MATCH_1 STREQUAL "unreleased")
  set(DISTRIBUTION UNRELEASED)
endif()
string(REPLACE "\n  " "\n    " ITEMS "\n${ITEMS}")
string(REPLACE "\n- " "\n  * " ITEMS "${ITEMS}")
string(TIMESTAMP DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${DOC}/changelog"
  "${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) ${DISTRIBUTION}; urgency=medium\n${ITEMS}\n\n"
  " -- ${CPACK_PACKAGE_CONTACT}  ${DATE}\n")
kp_compress("${DOC}/changelog")
file(REMOVE "${DOC}/CHANGELOG.md")
