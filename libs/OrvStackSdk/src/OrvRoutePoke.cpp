// SPDX-License-Identifier: Apache-2.0
#include "OrvRoutePoke.h"

#include <cerrno>
#include <dirent.h>
#include <fnmatch.h>
#include <net/if.h>
#include <string_view>
#include <sys/socket.h>

// Weak: a stand-in for libcurl may offer the nine calls of a transfer only.
#pragma weak curl_version_info

namespace OrvStackSdk {

namespace {

constexpr long POKE_TIMEOUT_SECONDS = 15;
constexpr unsigned ATTEMPTS_PER_BUNDLE = 32;

// If the kernel refuses to bind to the interface, libcurl binds to the interface's address instead. If the name is
// empty or too long, it binds to nothing. Such a connection may use any interface and proves nothing, so it is refused
// here. libcurl itself reports an interface that does not exist.
extern "C" int HoldToInterface(void* interfaceName, curl_socket_t descriptor, curlsocktype) noexcept {
    const auto& name = *static_cast<const std::string*>(interfaceName);
    const auto length = static_cast<socklen_t>(name.size());
    const bool held =
        length != 0 && length < IFNAMSIZ &&
        (setsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), length) == 0 || errno == ENODEV);
    return held ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

// Whether OpenSSL can find an authority in libcurl's folder by its hash. Otherwise libcurl parses the whole bundle for
// each connection, inside one tick.
bool AuthoritiesAreHashed() {
#if LIBCURL_VERSION_NUM >= 0x074600
    const curl_version_info_data* libcurl = curl_version_info ? curl_version_info(CURLVERSION_NOW) : nullptr;
    if (!libcurl || libcurl->age < CURLVERSION_SEVENTH || !libcurl->capath || !libcurl->ssl_version ||
        std::string_view(libcurl->ssl_version).substr(0, 8) != "OpenSSL/")
        return false;
    // Not by glob(): without memory glibc's may release its list twice.
    DIR* folder = opendir(libcurl->capath);
    bool found = false;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this opened folder
    for (const dirent* entry = nullptr; folder && !found && (entry = readdir(folder));)
        found = fnmatch("????????.0", entry->d_name, FNM_PERIOD) == 0;
    if (folder)
        closedir(folder);
    return found;
#else
    return false;
#endif
}

} // namespace

void OrvRoutePoke::Start(const std::string& interface) {
    interfaceName = interface;
    untrusted = 0;
}

bool OrvRoutePoke::SetUp() {
    // What may throw comes before the handles.
    const std::string device = "if!" + interfaceName;
    const bool folderAlone = untrusted % ATTEMPTS_PER_BUNDLE != 1 && AuthoritiesAreHashed();
    multiHandle = curl_multi_init();
    if (!multiHandle)
        return false;
    easyHandle = curl_easy_init();
    if (!easyHandle) {
        curl_multi_cleanup(multiHandle);
        multiHandle = nullptr;
        return false;
    }
    curl_easy_setopt(easyHandle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easyHandle, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_INTERFACE, device.c_str());
    curl_easy_setopt(easyHandle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_TIMEOUT, POKE_TIMEOUT_SECONDS);
    curl_easy_setopt(easyHandle, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_FRESH_CONNECT, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
    // Otherwise the clean-up waits for a running name look-up, for many seconds if the name servers do not answer.
    curl_easy_setopt(easyHandle, CURLOPT_QUICK_EXIT, 1L);
#endif
    curl_easy_setopt(easyHandle, CURLOPT_SOCKOPTFUNCTION, &HoldToInterface);
    curl_easy_setopt(easyHandle, CURLOPT_SOCKOPTDATA, &interfaceName);
    if (folderAlone)
        curl_easy_setopt(easyHandle, CURLOPT_CAINFO, nullptr);
    if (curl_multi_add_handle(multiHandle, easyHandle) == CURLM_OK)
        return true;
    curl_easy_cleanup(easyHandle);
    easyHandle = nullptr;
    curl_multi_cleanup(multiHandle);
    multiHandle = nullptr;
    return false;
}

bool OrvRoutePoke::Step() {
    if (!multiHandle && !SetUp()) {
        logger.Error() << "ERROR Setup Poke";
        return false;
    }
    try {
        int running = 0;
        if (curl_multi_perform(multiHandle, &running) != CURLM_OK) {
            logger.Error() << "curl multi perform error";
            Stop();
            return false;
        }
        return running == 0 && ReadResult();
    } catch (...) {
        // No memory to say how it ended: an attempt that has ended and is kept would be waited for without end.
        Stop();
        throw;
    }
}

bool OrvRoutePoke::ReadResult() {
    bool success = false;
    bool failed = false;
    int left = 0;
    do {
        const CURLMsg* message = curl_multi_info_read(multiHandle, &left);
        failed = false;
        if (message && message->msg == CURLMSG_DONE) {
            if (message->data.result == CURLE_OK) {
                success = true;
            } else {
                failed = true;
                const CURLcode result = message->data.result;
                if (result == CURLE_PEER_FAILED_VERIFICATION || result == CURLE_SSL_CACERT_BADFILE)
                    ++untrusted;
                logger.Error() << "poke error " << static_cast<int>(result);
            }
        }
    } while (!failed && left != 0);

    // An attempt that ended without a message is kept until the state machine gives it up.
    if (failed || success)
        Stop();
    return success;
}

void OrvRoutePoke::Stop() {
    curl_multi_remove_handle(multiHandle, easyHandle);
    curl_easy_cleanup(easyHandle);
    curl_multi_cleanup(multiHandle);
    easyHandle = nullptr;
    multiHandle = nullptr;
}

} // namespace OrvStackSdk
