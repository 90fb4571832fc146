// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Journal.h"

#include <curl/curl.h>
#include <string>
#include <vector>

namespace OrvStackSdk::Testing {

/// The functions of libcurl that the library uses, nine for a transfer and curl_version_info, taking libcurl's place at
/// link time. Every call becomes a line of the journal ("curl perform"), every use of a handle that libcurl would not
/// forgive a line "curl MISUSE ...". What the transfer does is scripted. For use by one thread at a time.
class FakeCurl {
public:
    /// One answer of curl_multi_info_read.
    struct Answer {
        bool none = false; // no message
        CURLMSG kind = CURLMSG_DONE;
        CURLcode result = CURLE_OK;
        int left = 0;
    };

    /// Where the poke's trust anchors come from: libcurl's default bundle, or its folder alone.
    enum class Anchors { BUNDLE, FOLDER };

    /// Set-ups succeed, transfers keep running, all handles of before are forgotten, TLS is GnuTLS's.
    static void Reset();

    /// @name What happens from now on
    /// @{
    static void KeepRunning();
    /// The transfer has ended; the completion messages are read as `answers`, then there is none.
    static void End(std::vector<Answer> answers);
    static void Succeed() { End({Answer{}}); }
    static void FailWith(CURLcode result) { End({Answer{false, CURLMSG_DONE, result, 0}}); }
    static void EndWithoutMessage() { End({}); }
    static void SetPerformResult(CURLMcode result);
    static void SetMultiInitFails(bool fails);
    static void SetEasyInitFails(bool fails);
    static void SetAddHandleResult(CURLMcode result);
    /// Which fields curl_version_info fills in: an older libcurl fills in fewer.
    static void SetVersionInfoAge(CURLversion age);
    /// What curl_version_info tells: the TLS library as "OpenSSL/3.0.9", and the default folder of trust anchors.
    static void SetTrust(const std::string& tlsLibrary, const std::string& folder);
    /// @}

    /// Handles that were made and not released.
    static int LiveHandles();

    /// @name The journal's lines
    /// @{
    /// Everything from curl_multi_init to curl_multi_add_handle for this endpoint and interface.
    static OrvPlatformFake::Entries SetUpLines(const std::string& url, const std::string& interfaceName,
                                               Anchors anchors = Anchors::BUNDLE);
    static OrvPlatformFake::Entries CleanLines();
    /// The clean-up of a poke that is not there.
    static OrvPlatformFake::Entries IdleCleanLines();
    /// @}
};

} // namespace OrvStackSdk::Testing
