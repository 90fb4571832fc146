// SPDX-License-Identifier: Apache-2.0
// Included before OrvRoutePoke.cpp is compiled for the kit: its calls of libcurl lead to the simulated cloud. Only
// names change; libcurl itself is neither linked nor replaced, so that an application may use it beside the kit.
#pragma once

#include <curl/curl.h>

/// A plain name: the source names it in a pragma too.
extern "C" curl_version_info_data* OrvStackSdkTestingVersionInfo(CURLversion age);

namespace OrvStackSdk::Testing::SimulatedCurl {

CURLM* MultiInit();
CURL* EasyInit();
CURLcode SetOption(CURL* easy, CURLoption option, ...);
CURLMcode AddHandle(CURLM* multi, CURL* easy);
CURLMcode Perform(CURLM* multi, int* running);
CURLMsg* InfoRead(CURLM* multi, int* left);
CURLMcode RemoveHandle(CURLM* multi, CURL* easy);
void EasyCleanup(CURL* easy);
CURLMcode MultiCleanup(CURLM* multi);

} // namespace OrvStackSdk::Testing::SimulatedCurl

#undef curl_easy_setopt
#define curl_version_info OrvStackSdkTestingVersionInfo
#define curl_multi_init ::OrvStackSdk::Testing::SimulatedCurl::MultiInit
#define curl_easy_init ::OrvStackSdk::Testing::SimulatedCurl::EasyInit
#define curl_easy_setopt ::OrvStackSdk::Testing::SimulatedCurl::SetOption
#define curl_multi_add_handle ::OrvStackSdk::Testing::SimulatedCurl::AddHandle
#define curl_multi_perform ::OrvStackSdk::Testing::SimulatedCurl::Perform
#define curl_multi_info_read ::OrvStackSdk::Testing::SimulatedCurl::InfoRead
#define curl_multi_remove_handle ::OrvStackSdk::Testing::SimulatedCurl::RemoveHandle
#define curl_easy_cleanup ::OrvStackSdk::Testing::SimulatedCurl::EasyCleanup
#define curl_multi_cleanup ::OrvStackSdk::Testing::SimulatedCurl::MultiCleanup
