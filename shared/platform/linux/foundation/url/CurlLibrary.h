// libcurl, loaded only by a program that makes a request.
#pragma once

#include <curl/curl.h>

/// The functions of libcurl that the port calls, under their names without "curl_".
struct CurlLibrary {
  decltype(&curl_global_init) global_init;
  decltype(&curl_version_info) version_info;
  decltype(&curl_free) free;
  decltype(&curl_slist_append) slist_append;
  decltype(&curl_slist_free_all) slist_free_all;
  decltype(&curl_url) url;
  decltype(&curl_url_cleanup) url_cleanup;
  decltype(&curl_url_set) url_set;
  decltype(&curl_url_get) url_get;
  decltype(&curl_easy_init) easy_init;
  decltype(&curl_easy_cleanup) easy_cleanup;
  decltype(&curl_easy_setopt) easy_setopt;
  decltype(&curl_easy_getinfo) easy_getinfo;
  decltype(&curl_easy_strerror) easy_strerror;
  decltype(&curl_multi_init) multi_init;
  decltype(&curl_multi_cleanup) multi_cleanup;
  decltype(&curl_multi_setopt) multi_setopt;
  decltype(&curl_multi_add_handle) multi_add_handle;
  decltype(&curl_multi_remove_handle) multi_remove_handle;
  decltype(&curl_multi_info_read) multi_info_read;
  decltype(&curl_multi_socket_action) multi_socket_action;
};

/// The library, ready for use. The first call loads and initializes it: with the libraries that
/// it needs it would make every program, also one that never makes a request, larger by 3 MiB
/// and slower to start. From any thread.
/// nullptr when it cannot be loaded or is older than release 7.87; then, and at every later call,
/// `*reason` says why, in the words of the dynamic linker or of libcurl where they failed. The text
/// lives as long as the program.
const CurlLibrary* LoadedCurlLibrary(const char** reason);

/// The library that LoadedCurlLibrary() has given before.
const CurlLibrary& Curl();
