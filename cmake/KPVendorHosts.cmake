# The values that the vendor sets, and what they must be. "cmake -DNAME=VALUE -P" on this file checks
# values without configuring. The defaults are reserved names, so that a build without configured hosts
# reaches no one (RFC 2606).
set(KP_VENDOR_WEB_HOST "www.tarvix.example" CACHE STRING
  "Web site of the redirect page, and the host-named folder in the updater's path")
set(KP_DOWNLOAD_HOST "download.tarvix.example" CACHE STRING
  "Download server of the pingback and of the version description")
set(KP_UNINSTALLER_URL "http://www.tarvix.example/software/korvel/uninstaller.html" CACHE STRING
  "Page from which the uninstaller is downloaded: an http or https address")

# kp_is_host(RESULT HOST): whether HOST is a host name, as RFC 1123 describes it, and not an address.
function(kp_is_host RESULT HOST)
  set(${RESULT} FALSE PARENT_SCOPE)
  set(LABEL "[A-Za-z0-9]([A-Za-z0-9-]*[A-Za-z0-9])?")
  string(LENGTH "${HOST}" LENGTH)
  if(LENGTH GREATER 253 OR NOT HOST MATCHES "^(${LABEL}\\.)*${LABEL}$" OR HOST MATCHES "(^|\\.)[0-9]+$")
    return()
  endif()
  string(REPLACE "." ";" LABELS "${HOST}")
  foreach(LABEL IN LISTS LABELS)
    string(LENGTH "${LABEL}" LENGTH)
    if(LENGTH GREATER 63)
      return()
    endif()
  endforeach()
  set(${RESULT} TRUE PARENT_SCOPE)
endfunction()

# kp_is_url(RESULT URL): whether URL is a web address of printable ASCII characters that a string
# constant and a JSON text can hold as they are.
function(kp_is_url RESULT URL)
  set(VALID FALSE)
  if(URL MATCHES "^https?://([A-Za-z0-9.-]+)(:[0-9]+)?([/?#][]!#-[^-~]*)?$")
    kp_is_host(VALID "${CMAKE_MATCH_1}")
  endif()
  set(${RESULT} ${VALID} PARENT_SCOPE)
endfunction()

# kp_check_vendor_hosts(): an error that names every value that cannot be used.
function(kp_check_vendor_hosts)
  set(FAULTS "")
  foreach(NAME KP_VENDOR_WEB_HOST KP_DOWNLOAD_HOST)
    kp_is_host(VALID "${${NAME}}")
    if(NOT VALID)
      string(APPEND FAULTS "\n${NAME} is \"${${NAME}}\". It must be a host name alone, such as "
        "downloads.vendor.com: letters, digits and hyphens in labels that dots join; no scheme, port, "
        "path or blank.\n")
    endif()
  endforeach()
  kp_is_url(VALID "${KP_UNINSTALLER_URL}")
  if(NOT VALID)
    string(APPEND FAULTS "\nKP_UNINSTALLER_URL is \"${KP_UNINSTALLER_URL}\". It must be an address that "
      "begins with http:// or https:// and a host name, such as "
      "https://www.vendor.com/uninstaller.html: printable ASCII characters without blanks, double "
      "quotes and backslashes.\n")
  endif()
  if(FAULTS)
    message(FATAL_ERROR "${FAULTS}")
  endif()
endfunction()

kp_check_vendor_hosts()
