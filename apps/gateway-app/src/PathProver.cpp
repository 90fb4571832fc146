// SPDX-License-Identifier: Apache-2.0
#include "PathProver.h"

#include "KeepAlive.h"
#include "TlsContext.h"

#include <curl/curl.h>
#include <poll.h>
#include <sys/epoll.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr long CONNECT_MS = 5000;

std::atomic<int> helpers{0};

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using Easy = std::unique_ptr<CURL, EasyDeleter>;

struct Tls {
    const CloudSettings& settings;
    std::unique_ptr<TlsContext> context;
    std::string failure;

    static CURLcode SetUp(CURL*, void* native, void* self) noexcept {
        auto* const tls = static_cast<Tls*>(self);
        try {
            tls->context = std::make_unique<TlsContext>(tls->settings, static_cast<ssl_ctx_st*>(native));
            return CURLE_OK;
        } catch (const std::exception& error) {
            tls->failure = error.what();
            return CURLE_SSL_CERTPROBLEM;
        }
    }
    std::string Reason() const { return context ? context->LastReason() : failure; }
};

long SystemErrorOf(CURL* handle, CURLcode code) {
    long systemError = 0;
    if (code == CURLE_COULDNT_CONNECT)
        curl_easy_getinfo(handle, CURLINFO_OS_ERRNO, &systemError);
    return systemError;
}

PathProver::Cause CauseOf(CURL* handle, CURLcode code) {
    curl_off_t lookedUp = 0; // microseconds; 0: the name has not been found yet
    curl_easy_getinfo(handle, CURLINFO_NAMELOOKUP_TIME_T, &lookedUp);
    if (code == CURLE_COULDNT_RESOLVE_HOST || (code == CURLE_OPERATION_TIMEDOUT && lookedUp == 0))
        return PathProver::Cause::NAME;
    const long error = SystemErrorOf(handle, code);
    return error == ENETUNREACH || error == EHOSTUNREACH ? PathProver::Cause::ROUTE : PathProver::Cause::OTHER;
}

/// The same text for the same failure: libcurl's own has the milliseconds in it.
std::string FailureOf(CURL* handle, CURLcode code) {
    if (CauseOf(handle, code) == PathProver::Cause::NAME)
        return "its name is not found";
    if (code == CURLE_OPERATION_TIMEDOUT)
        return "no answer";
    const long systemError = SystemErrorOf(handle, code);
    std::string text = curl_easy_strerror(code);
    return systemError == 0 ? text : text + ": " + std::generic_category().message(static_cast<int>(systemError));
}

} // namespace

struct PathProver::Attempt {
    CloudSettings settings;
    std::string interface;
    std::chrono::seconds hold;
    Callback callback;
    std::atomic<bool> wanted{true};
    Result result; // the helper's until it posts

    Result Run() const;
    std::string Hold(CURL* handle) const;
    static int Progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
        return static_cast<const Attempt*>(self)->wanted ? 0 : 1;
    }
};

PathProver::Result PathProver::Attempt::Run() const {
    Tls tls{settings, nullptr, {}}; // lives longer than what libcurl makes of it
    const Easy easy(curl_easy_init());
    if (!easy)
        return {false, "out of memory", false};
    CURL* const handle = easy.get();
    const bool plain = settings.host.find(':') == std::string::npos; // no IPv6 address
    const std::string url =
        "https://" + (plain ? settings.host : "[" + settings.host + "]") + ":" + std::to_string(settings.port);
    const std::string device = "if!" + interface; // an interface and nothing else, whatever the name servers say
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(handle, CURLOPT_INTERFACE, device.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle, CURLOPT_SSL_ENABLE_ALPN, 0L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, CONNECT_MS);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, CONNECT_MS);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &Attempt::Progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
    if (!settings.caFile.empty())
        curl_easy_setopt(handle, CURLOPT_CAINFO, settings.caFile.c_str());
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &Tls::SetUp);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &tls);
    const CURLcode code = curl_easy_perform(handle);
    if (code != CURLE_OK) {
        const std::string reason = tls.Reason();
        if (!reason.empty())
            return {false, reason, false, true};
        return {false, FailureOf(handle, code), false, false, CauseOf(handle, code)};
    }
    const std::string failure = Hold(handle);
    return {failure.empty(), failure, true};
}

/// Watches the connection by the measure of the application's own.
std::string PathProver::Attempt::Hold(CURL* handle) const {
    curl_socket_t socket = CURL_SOCKET_BAD;
    if (curl_easy_getinfo(handle, CURLINFO_ACTIVESOCKET, &socket) != CURLE_OK || socket == CURL_SOCKET_BAD)
        return "the connection ended at once";
    const KeepAlive quick;
    SetLossDetection(socket, quick);
    const auto end = std::chrono::steady_clock::now() + hold;
    while (wanted && std::chrono::steady_clock::now() < end) {
        if (SilentFor(socket) > quick.Silence())
            return "no sign of life";
        pollfd ended{socket, POLLRDHUP, 0};
        if (poll(&ended, 1, static_cast<int>(ProbeWhenOverdue(socket, quick).count())) > 0)
            return "the connection has ended";
    }
    return {};
}

PathProver::PathProver(EventLoop& eventLoop) : loop(eventLoop), mailbox(std::make_shared<Mailbox>()) {
    loop.Watch(mailbox->ReadyDescriptor(), EPOLLIN, [this](std::uint32_t) { mailbox->DoAll(); });
}

PathProver::~PathProver() {
    Stop();
    loop.Forget(mailbox->ReadyDescriptor());
}

void PathProver::Stop() {
    if (current)
        current->wanted = false;
    current = nullptr;
}

int PathProver::Helpers() {
    return helpers;
}

void PathProver::Begin(const CloudSettings& settings, const std::string& interface, std::chrono::seconds hold,
                       Callback callback) {
    Stop();
    current = std::make_shared<Attempt>();
    current->settings = settings;
    current->interface = interface;
    current->hold = hold;
    current->callback = std::move(callback);
    const auto answer = [attempt = current] {
        if (attempt->wanted.exchange(false))
            attempt->callback(attempt->result);
    };
    ++helpers;
    try {
        std::thread([attempt = current, box = mailbox, answer = answer]() mutable {
            attempt->result = attempt->Run();
            box->Post(std::move(answer));
            // Once no helper is counted the process may end, and with it the libraries that free what these hold.
            attempt.reset();
            box.reset();
            --helpers;
        }).detach();
    } catch (const std::system_error& error) {
        --helpers;
        current->result = {false, std::string("cannot start a thread: ") + error.what(), false};
        mailbox->Post(answer);
    }
}

} // namespace GatewayApp
