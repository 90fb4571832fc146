// SPDX-License-Identifier: Apache-2.0
#include "client/SimulatedTransfers.h"

#include "client/Witness.h"

#include <curl/curl.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <string>

// A macro of curl.h checks the number of arguments.
#undef curl_easy_setopt

namespace OrvLab {

namespace {

SimulatedTransfers* current = nullptr;
constexpr int A_SOCKET = 99'999;

SimulatedTransfers& Library(const char* call) {
    Simulation::Current()->Step(call);
    return *current;
}

TransferStack& Existing(CURLM* multi, const char* call) {
    auto* stack = static_cast<TransferStack*>(multi);
    SimulatedTransfers& library = Library(call);
    if (library.stacks.count(stack) == 0)
        library.sim.Fail(std::string(call) + " with a multi handle that is none");
    return *stack;
}

Transfer& ExistingTransfer(CURL* easy, const char* call) {
    auto* transfer = static_cast<Transfer*>(easy);
    SimulatedTransfers& library = Library(call);
    if (library.transfers.count(transfer) == 0)
        library.sim.Fail(std::string(call) + " with an easy handle that is none");
    return *transfer;
}

void Note(const std::string& what, int result = 0) {
    Witness::Current()->Note(what, result);
}

/// What makes an attempt a proof.
void CheckOptions(Simulation& sim, Transfer& transfer) {
    const auto demand = [&](int option, long value, const char* name) {
        const auto found = transfer.numbers.find(option);
        if (found == transfer.numbers.end() || found->second != value)
            sim.Fail(std::string("a poke without the right ") + name);
    };
    demand(CURLOPT_CONNECT_ONLY, 1, "CONNECT_ONLY");
    demand(CURLOPT_NOBODY, 1, "NOBODY");
    demand(CURLOPT_NOSIGNAL, 1, "NOSIGNAL");
    demand(CURLOPT_FAILONERROR, 1, "FAILONERROR");
    demand(CURLOPT_TIMEOUT, 15, "TIMEOUT");
    demand(CURLOPT_FORBID_REUSE, 1, "FORBID_REUSE");
    demand(CURLOPT_FRESH_CONNECT, 1, "FRESH_CONNECT");
    demand(CURLOPT_QUICK_EXIT, 1, "QUICK_EXIT");
    if (transfer.texts[CURLOPT_URL] != "https://cloud.example:8443/poke")
        sim.Fail("a poke to " + transfer.texts[CURLOPT_URL]);
    if (transfer.texts[CURLOPT_INTERFACE].rfind("if!", 0) != 0)
        sim.Fail("a poke over " + transfer.texts[CURLOPT_INTERFACE]);
    if (transfer.prepare == nullptr)
        sim.Fail("a poke that is not held to its interface");
}

} // namespace

SimulatedTransfers* SimulatedTransfers::Current() {
    return current;
}

SimulatedTransfers::SimulatedTransfers(Simulation& simulation, std::uint64_t seed) : sim(simulation), random(seed) {
    current = this;
}

SimulatedTransfers::~SimulatedTransfers() {
    for (Transfer* transfer : transfers)
        delete transfer;
    for (TransferStack* stack : stacks)
        delete stack;
    current = nullptr;
}

namespace {

template <typename Set>
std::size_t CountOf(const Set& all, const void* side) {
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const auto* one) { return one->side == side; }));
}

template <typename Set>
void ForgetOf(Set& all, const void* side) {
    for (auto one = all.begin(); one != all.end();) {
        if ((*one)->side != side) {
            ++one;
            continue;
        }
        delete *one;
        one = all.erase(one);
    }
}

} // namespace

std::size_t SimulatedTransfers::Living() const {
    return CountOf(transfers, sim.Self().side);
}

std::size_t SimulatedTransfers::LivingStacks() const {
    return CountOf(stacks, sim.Self().side);
}

void SimulatedTransfers::Forget() {
    ForgetOf(transfers, sim.Self().side);
    ForgetOf(stacks, sim.Self().side);
}

void SimulatedTransfers::Heal(bool doesReach) {
    healed = true;
    reaches = doesReach;
    for (Transfer* transfer : transfers)
        transfer->isSilent = false;
}

void SimulatedTransfers::DrawOutcome(Transfer& transfer) {
    constexpr int RESULTS[] = {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT, CURLE_SSL_CONNECT_ERROR,
                               CURLE_INTERFACE_FAILED,     CURLE_SEND_ERROR,      CURLE_PEER_FAILED_VERIFICATION,
                               CURLE_SSL_CACERT_BADFILE,   CURLE_GOT_NOTHING};
    const Time limit = transfer.numbers[CURLOPT_TIMEOUT] * SECOND;
    const Time soon = static_cast<Time>(random.Below(random.OneIn(3) ? 20'000 : 800)) * MILLISECOND;
    transfer.endsAt = sim.Now() + soon;
    transfer.result = CURLE_OK;
    transfer.holdError = 0;
    if (healed) {
        transfer.endsAt = sim.Now() + (reaches ? 300 * MILLISECOND : limit);
        transfer.result = reaches ? CURLE_OK : CURLE_OPERATION_TIMEDOUT;
        return;
    }
    if (random.OneIn(2))
        transfer.result = RESULTS[random.Below(8)];
    if (random.OneIn(6))
        transfer.endsAt = NEVER;
    if (limit > 0 && transfer.endsAt > sim.Now() + limit) {
        transfer.endsAt = sim.Now() + limit;
        transfer.result = CURLE_OPERATION_TIMEDOUT;
    }
    transfer.isSilent = random.OneIn(20);
    transfer.hasForeword = random.OneIn(10);
    transfer.holdError = random.OneIn(12) ? (random.OneIn(2) ? EPERM : ENODEV) : 0;
}

/// As libcurl does with each new socket. A socket that could not be held to its interface must not be used, unless the
/// interface is gone, which libcurl says itself.
bool SimulatedTransfers::PrepareSocket(Transfer& transfer) {
    heldTo.clear();
    holdError = transfer.holdError;
    transfer.hasPrepared = true;
    const std::string asked = transfer.texts[CURLOPT_INTERFACE].substr(3);
    const int answer = Watch([&] { return transfer.prepare(transfer.prepareArgument, A_SOCKET, CURLSOCKTYPE_IPCXN); });
    if (asked.empty() || asked.size() >= IFNAMSIZ) { // then libcurl would hold it to nothing
        if (answer == CURL_SOCKOPT_OK)
            sim.Fail("a poke over any interface");
        return false;
    }
    if (heldTo != asked)
        sim.Fail("a poke over " + asked + " is held to '" + heldTo + "'");
    const bool shall = holdError == 0 || holdError == ENODEV;
    if ((answer == CURL_SOCKOPT_OK) != shall)
        sim.Fail("a poke's socket that " + std::string(shall ? "is held" : "is not held") + " to its interface");
    return shall;
}

} // namespace OrvLab

using OrvLab::current;
using OrvLab::Existing;
using OrvLab::ExistingTransfer;
using OrvLab::Note;
using OrvLab::SimulatedTransfers;
using OrvLab::Transfer;
using OrvLab::TransferStack;

extern "C" {

curl_version_info_data* curl_version_info(CURLversion) {
    const OrvLab::Unwatched unwatched;
    static curl_version_info_data info{};
    info.age = CURLVERSION_NOW;
    info.ssl_version = "OpenSSL/3.0.9";
    info.capath = "/etc/ssl/certs";
    return &info;
}

CURLM* curl_multi_init() {
    const OrvLab::Unwatched unwatched;
    SimulatedTransfers& library = OrvLab::Library("curl_multi_init");
    if (library.random.OneIn(30)) {
        Note("a poke cannot begin");
        return nullptr;
    }
    TransferStack* const made = *library.stacks.insert(new TransferStack).first;
    made->side = library.sim.Self().side;
    return made;
}

CURL* curl_easy_init() {
    const OrvLab::Unwatched unwatched;
    SimulatedTransfers& library = OrvLab::Library("curl_easy_init");
    if (library.random.OneIn(30)) {
        Note("a poke cannot begin");
        return nullptr;
    }
    Transfer* const made = *library.transfers.insert(new Transfer).first;
    made->side = library.sim.Self().side;
    return made;
}

CURLcode curl_easy_setopt(CURL* easy, CURLoption option, ...) {
    const OrvLab::Unwatched unwatched;
    auto& transfer = ExistingTransfer(easy, "curl_easy_setopt");
    va_list arguments;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs" // libcurl's signature: the last named parameter is an enumeration
    va_start(arguments, option);
#pragma GCC diagnostic pop
    if (option == CURLOPT_SOCKOPTFUNCTION)
        transfer.prepare = va_arg(arguments, curl_sockopt_callback);
    else if (option == CURLOPT_SOCKOPTDATA)
        transfer.prepareArgument = va_arg(arguments, void*);
    else if (option < CURLOPTTYPE_OBJECTPOINT)
        transfer.numbers[option] = va_arg(arguments, long);
    else if (const char* text = va_arg(arguments, const char*))
        transfer.texts[option] = text;
    else
        transfer.texts.erase(option);
    va_end(arguments);
    return CURLE_OK;
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* easy) {
    const OrvLab::Unwatched unwatched;
    auto& stack = Existing(multi, "curl_multi_add_handle");
    auto& transfer = ExistingTransfer(easy, "curl_multi_add_handle");
    OrvLab::CheckOptions(current->sim, transfer);
    if (current->random.OneIn(30)) {
        Note("a poke cannot begin");
        return CURLM_OUT_OF_MEMORY;
    }
    stack.transfer = &transfer;
    stack.hasBegun = true;
    transfer.stack = &stack;
    current->DrawOutcome(transfer);
    Note("a poke begins over " + transfer.texts[CURLOPT_INTERFACE].substr(3));
    return CURLM_OK;
}

CURLMcode curl_multi_perform(CURLM* multi, int* running) {
    const OrvLab::Unwatched unwatched;
    auto& stack = Existing(multi, "curl_multi_perform");
    if (stack.transfer == nullptr)
        current->sim.Fail("a poke is driven that has no transfer");
    Transfer& transfer = *stack.transfer;
    if (!transfer.hasPrepared && !current->PrepareSocket(transfer)) {
        transfer.endsAt = current->sim.Now();
        transfer.result = CURLE_COULDNT_CONNECT;
    }
    if (current->random.OneIn(60)) {
        Note("the poke is driven", -1);
        return CURLM_INTERNAL_ERROR;
    }
    *running = transfer.endsAt > current->sim.Now() ? 1 : 0;
    Note("the poke is driven", *running);
    return CURLM_OK;
}

CURLMsg* curl_multi_info_read(CURLM* multi, int* left) {
    const OrvLab::Unwatched unwatched;
    auto& stack = Existing(multi, "curl_multi_info_read");
    CURLMsg& message = stack.message;
    *left = 0;
    Transfer* transfer = stack.transfer;
    const int messages = transfer == nullptr ? 0 : (transfer->isSilent ? 0 : 1) + (transfer->hasForeword ? 1 : 0);
    if (transfer == nullptr || transfer->told >= messages) {
        Note("the poke says nothing");
        return nullptr;
    }
    *left = messages - ++transfer->told;
    const bool isForeword = transfer->hasForeword && transfer->told == 1;
    message.msg = isForeword ? CURLMSG_NONE : CURLMSG_DONE;
    message.easy_handle = transfer;
    message.data.result = static_cast<CURLcode>(isForeword ? 0 : transfer->result);
    if (isForeword)
        Note("the poke says something", *left);
    else
        Note("the poke has ended", transfer->result);
    return &message;
}

CURLMcode curl_multi_remove_handle(CURLM* multi, CURL* easy) {
    const OrvLab::Unwatched unwatched;
    if (multi == nullptr && easy == nullptr)
        return CURLM_BAD_HANDLE;
    auto& stack = Existing(multi, "curl_multi_remove_handle");
    auto& transfer = ExistingTransfer(easy, "curl_multi_remove_handle");
    stack.transfer = nullptr;
    transfer.stack = nullptr;
    return CURLM_OK;
}

void curl_easy_cleanup(CURL* easy) {
    const OrvLab::Unwatched unwatched;
    if (easy == nullptr)
        return;
    auto& transfer = ExistingTransfer(easy, "curl_easy_cleanup");
    if (transfer.stack != nullptr)
        current->sim.Fail("a transfer is released that was not removed");
    current->transfers.erase(&transfer);
    delete &transfer;
}

CURLMcode curl_multi_cleanup(CURLM* multi) {
    const OrvLab::Unwatched unwatched;
    if (multi == nullptr)
        return CURLM_BAD_HANDLE;
    auto& stack = Existing(multi, "curl_multi_cleanup");
    if (stack.transfer != nullptr)
        current->sim.Fail("a multi handle is released with its transfer");
    if (stack.hasBegun)
        Note("the poke is released");
    current->stacks.erase(&stack);
    delete &stack;
    return CURLM_OK;
}

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_setsockopt(int number, int level, int option, const void* value, socklen_t size);

int __wrap_setsockopt(int number, int level, int option, const void* value, socklen_t size) {
    const OrvLab::Unwatched unwatched;
    if (number != OrvLab::A_SOCKET || current == nullptr)
        return OrvLab::Simulation::Current() != nullptr ? 0 : __real_setsockopt(number, level, option, value, size);
    if (level == SOL_SOCKET && option == SO_BINDTODEVICE)
        current->heldTo.assign(static_cast<const char*>(value), size);
    errno = current->holdError;
    return current->holdError != 0 ? -1 : 0;
}
// NOLINTEND(bugprone-reserved-identifier)
}
