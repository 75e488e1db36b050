// libcurl, loaded only by a program that makes a request.
#pragma once

#include <curl/curl.h>

#include <string>

/// The functions of libcurl that the port calls, under their names without "curl_". The version is
/// first, because a release that lacks others is recognized by it.
// clang-format off
#define KP_CURL_FUNCTIONS(X)                                                             \
  X(version_info) X(global_init)                                                         \
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
  /// Why no function may be called: the library cannot be loaded, or is older than release 7.87. In
  /// the words of the dynamic linker or of libcurl if the failure is theirs; empty without one.
  std::string failure;
};

/// Loads and initializes the library at the first call, from any thread. It is not linked, because
/// then every program would pay for it at its start. The object lives as long as the program.
const CurlLibrary& Curl();
