// SPDX-License-Identifier: Apache-2.0
// The poke: proof that the cloud side is reachable over one interface, by a TLS connection that requests nothing.
#include "OrvRoute.h"

#include <cerrno>
#include <net/if.h>
#include <sys/socket.h>

namespace OrvStackSdk {

namespace {

constexpr long POKE_TIMEOUT_SECONDS = 15;

// Where the kernel refuses the interface, libcurl would bind to its address instead, and to nothing at all where the
// name is empty or too long: such a connection may leave by any interface and proves nothing. A missing interface is
// left to libcurl to report.
extern "C" int HoldToInterface(void* pokeInterface, curl_socket_t descriptor, curlsocktype) noexcept {
    const auto& name = *static_cast<const std::string*>(pokeInterface);
    const auto length = static_cast<socklen_t>(name.size());
    const bool held =
        length != 0 && length < IFNAMSIZ &&
        (setsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), length) == 0 || errno == ENODEV);
    return held ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

} // namespace

bool OrvRoute::SetupPoke() {
    multiHandle = curl_multi_init();
    if (!multiHandle)
        return false;
    easyHandle = curl_easy_init();
    if (!easyHandle) {
        curl_multi_cleanup(multiHandle);
        multiHandle = nullptr;
        return false;
    }
    curl_easy_setopt(easyHandle, CURLOPT_URL, pokeUrl.c_str());
    curl_easy_setopt(easyHandle, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_INTERFACE, ("if!" + pokeInterface).c_str());
    curl_easy_setopt(easyHandle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_TIMEOUT, POKE_TIMEOUT_SECONDS);
    curl_easy_setopt(easyHandle, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easyHandle, CURLOPT_FRESH_CONNECT, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
    // Otherwise the clean-up waits for a name look-up under way, for many seconds when the name servers are mute.
    curl_easy_setopt(easyHandle, CURLOPT_QUICK_EXIT, 1L);
#endif
    curl_easy_setopt(easyHandle, CURLOPT_SOCKOPTFUNCTION, &HoldToInterface);
    curl_easy_setopt(easyHandle, CURLOPT_SOCKOPTDATA, &pokeInterface);
    if (curl_multi_add_handle(multiHandle, easyHandle) == CURLM_OK)
        return true;
    curl_easy_cleanup(easyHandle);
    easyHandle = nullptr;
    curl_multi_cleanup(multiHandle);
    multiHandle = nullptr;
    return false;
}

bool OrvRoute::DoPoke() {
    if (!multiHandle && !SetupPoke()) {
        logger.Error() << "ERROR Setup Poke";
        return false;
    }
    int running = 0;
    if (curl_multi_perform(multiHandle, &running) != CURLM_OK) {
        logger.Error() << "curl multi perform error";
        CleanPoke();
        return false;
    }
    return running == 0 && ReadPokeResult();
}

bool OrvRoute::ReadPokeResult() {
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
                logger.Error() << "poke error " << static_cast<int>(message->data.result);
            }
        }
    } while (!failed && left != 0);

    // An attempt that ended without a message is kept; the state machine abandons it in its own time.
    if (failed || success)
        CleanPoke();
    return success;
}

void OrvRoute::CleanPoke() {
    curl_multi_remove_handle(multiHandle, easyHandle);
    curl_easy_cleanup(easyHandle);
    curl_multi_cleanup(multiHandle);
    easyHandle = nullptr;
    multiHandle = nullptr;
}

} // namespace OrvStackSdk
