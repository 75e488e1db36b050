// libcurl, loaded only by a program that makes a request.
#pragma once

#include <curl/curl.h>

/// The functions of libcurl that the port calls, under their names without "curl_".
// clang-format off
#define KP_CURL_FUNCTIONS(X)                                                             \
  X(global_init) X(version_info)                                                         \
  X(free) X(url) X(url_cleanup) X(url_set) X(url_get)                                    \
  X(easy_init) X(easy_cleanup) X(easy_setopt) X(easy_getinfo) X(easy_nextheader)         \
  X(easy_strerror)                                                                       \
  X(multi_init) X(multi_cleanup) X(multi_setopt) X(multi_add_handle)                     \
  X(multi_remove_handle) X(multi_info_read) X(multi_socket_action)
// clang-format on

/// Pointers to those functions.
struct CurlLibrary {
#define KP_CURL_MEMBER(NAME) decltype(&curl_##NAME) NAME;  // NOLINT(bugprone-macro-parentheses)
  KP_CURL_FUNCTIONS(KP_CURL_MEMBER)
#undef KP_CURL_MEMBER
};

/// Loads and initializes the library at the first call, from any thread. It is not linked, because
/// then every program would pay for it at its start. Returns nullptr, and does so at every later
/// call, when the library cannot be loaded or is older than release 7.87. `*reason` then says why,
/// in the words of the dynamic linker or of libcurl if the failure is theirs; the text lives as
/// long as the program.
const CurlLibrary* LoadedCurlLibrary(const char** reason);

/// The library that LoadedCurlLibrary() has returned before.
const CurlLibrary& Curl();
