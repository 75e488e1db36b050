// libcurl, loaded only by a program that makes a request.
#pragma once

#include <curl/curl.h>

/// The functions of libcurl that the port calls, under their names without "curl_".
#define KP_CURL_FUNCTIONS(FUNCTION) \
  FUNCTION(global_init)             \
  FUNCTION(version_info)            \
  FUNCTION(free)                    \
  FUNCTION(url)                     \
  FUNCTION(url_cleanup)             \
  FUNCTION(url_set)                 \
  FUNCTION(url_get)                 \
  FUNCTION(easy_init)               \
  FUNCTION(easy_cleanup)            \
  FUNCTION(easy_setopt)             \
  FUNCTION(easy_getinfo)            \
  FUNCTION(easy_strerror)           \
  FUNCTION(multi_init)              \
  FUNCTION(multi_cleanup)           \
  FUNCTION(multi_setopt)            \
  FUNCTION(multi_add_handle)        \
  FUNCTION(multi_remove_handle)     \
  FUNCTION(multi_info_read)         \
  FUNCTION(multi_socket_action)

/// Pointers to those functions.
struct CurlLibrary {
#define KP_CURL_MEMBER(NAME) decltype(&curl_##NAME) NAME;
  KP_CURL_FUNCTIONS(KP_CURL_MEMBER)
#undef KP_CURL_MEMBER
};

/// Loads and initializes the library at the first call, from any thread. Linked instead, it would
/// cost every start of every program 4 ms of processor time, a quarter of it, and 3 MiB.
/// Returns nullptr when the library cannot be loaded, and at every later call; `*reason` then says
/// why, in the words of the dynamic linker or of libcurl. The text lives as long as the program.
const CurlLibrary* LoadedCurlLibrary(const char** reason);

/// The library that LoadedCurlLibrary() has returned before.
const CurlLibrary& Curl();
