// SPDX-License-Identifier: Apache-2.0
// libcurl as PathProver uses it: a connection that is bound to an interface, and nothing said over it.
#include "gateway/World.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <memory>
#include <string>

#undef curl_easy_setopt
#undef curl_easy_getinfo
#pragma GCC diagnostic ignored "-Wvarargs" // libcurl's signatures: the last named parameter is an enumeration

using OrvLab::CloudSocket;
using OrvLab::Descriptors;
using OrvLab::Time;
using OrvLab::World;

namespace {

struct Transfer {
    std::string interface;
    Time limit = 0;
    curl_xferinfo_callback progress = nullptr;
    void* progressArgument = nullptr;
    curl_ssl_ctx_callback setUp = nullptr;
    void* setUpArgument = nullptr;
    int number = -1;
    curl_off_t lookedUp = 0;
    long systemError = 0;
};

/// @return false when the application wants no more of it
bool WaitFor(World& world, Transfer& transfer, Time duration) {
    const Time end = world.sim.Now() + duration;
    while (world.sim.Now() < end) {
        world.sim.Wait(
            "curl_easy_perform", [] { return false; }, std::min(end, world.sim.Now() + OrvLab::SECOND));
        if (OrvLab::Watch([&] { return transfer.progress(transfer.progressArgument, 0, 0, 0, 0); }) != 0)
            return false;
    }
    return true;
}

} // namespace

extern "C" {

CURL* curl_easy_init() {
    const OrvLab::Unwatched unwatched;
    return new Transfer;
}

void curl_easy_cleanup(CURL* handle) {
    const OrvLab::Unwatched unwatched;
    const std::unique_ptr<Transfer> transfer(static_cast<Transfer*>(handle));
    if (transfer->number >= 0)
        close(transfer->number);
}

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
    const OrvLab::Unwatched unwatched;
    auto& transfer = *static_cast<Transfer*>(handle);
    va_list arguments;
    va_start(arguments, option);
    if (option == CURLOPT_INTERFACE)
        transfer.interface = va_arg(arguments, const char*);
    else if (option == CURLOPT_TIMEOUT_MS)
        transfer.limit = va_arg(arguments, long) * OrvLab::MILLISECOND;
    else if (option == CURLOPT_XFERINFOFUNCTION)
        transfer.progress = va_arg(arguments, curl_xferinfo_callback);
    else if (option == CURLOPT_XFERINFODATA)
        transfer.progressArgument = va_arg(arguments, void*);
    else if (option == CURLOPT_SSL_CTX_FUNCTION)
        transfer.setUp = va_arg(arguments, curl_ssl_ctx_callback);
    else if (option == CURLOPT_SSL_CTX_DATA)
        transfer.setUpArgument = va_arg(arguments, void*);
    va_end(arguments);
    return CURLE_OK;
}

CURLcode curl_easy_perform(CURL* handle) {
    const OrvLab::Unwatched unwatched;
    auto& transfer = *static_cast<Transfer*>(handle);
    World& world = World::Of("curl_easy_perform");
    if (world.sim.Self().locks != 0)
        world.sim.Fail("connects and holds a lock");
    if (transfer.limit == 0 || transfer.limit > 5 * OrvLab::SECOND)
        world.sim.Fail("gives a proof more than 5 s");
    const std::string interface = transfer.interface.substr(transfer.interface.find('!') + 1);
    const auto drawn = world.prove(interface);
    if (!WaitFor(world, transfer, std::min(drawn.duration, transfer.limit)))
        return CURLE_ABORTED_BY_CALLBACK;
    transfer.lookedUp = drawn.named ? 1000 : 0;
    if (!drawn.named)
        return CURLE_COULDNT_RESOLVE_HOST;
    transfer.systemError = drawn.source.empty() ? ENETUNREACH : 0;
    if (drawn.source.empty())
        return CURLE_COULDNT_CONNECT;
    if (drawn.duration >= transfer.limit)
        return CURLE_OPERATION_TIMEDOUT;
    int native = 0;
    const CURLcode code = OrvLab::Watch([&] { return transfer.setUp(handle, &native, transfer.setUpArgument); });
    if (code != CURLE_OK)
        return code;
    if (!drawn.good)
        return CURLE_SSL_CONNECT_ERROR;
    transfer.number = Descriptors::Of().Open(world.cloud.Reach(drawn.source));
    return CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL* handle, CURLINFO what, ...) {
    const OrvLab::Unwatched unwatched;
    const auto& transfer = *static_cast<Transfer*>(handle);
    va_list arguments;
    va_start(arguments, what);
    if (what == CURLINFO_NAMELOOKUP_TIME_T)
        *va_arg(arguments, curl_off_t*) = transfer.lookedUp;
    else if (what == CURLINFO_OS_ERRNO)
        *va_arg(arguments, long*) = transfer.systemError;
    else if (what == CURLINFO_ACTIVESOCKET)
        *va_arg(arguments, curl_socket_t*) = transfer.number;
    va_end(arguments);
    return CURLE_OK;
}

const char* curl_easy_strerror(CURLcode /*code*/) {
    return "an error of the transfer";
}
}
