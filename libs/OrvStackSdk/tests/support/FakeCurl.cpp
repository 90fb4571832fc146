// SPDX-License-Identifier: Apache-2.0
#include "FakeCurl.h"

#include <cstdarg>
#include <list>
#include <map>
#include <unordered_set>

// A macro of curl.h checks the number of arguments.
#undef curl_easy_setopt

namespace {

using OrvPlatformFake::Entries;
using OrvPlatformFake::Journal;
using OrvStackSdk::Testing::FakeCurl;

struct Handle {
    bool multi;
    bool alive = true;
    Handle* partner = nullptr; // of an easy handle: the multi handle that drives it; and the other way round
};

struct Script {
    bool multiInitFails = false;
    bool easyInitFails = false;
    CURLMcode addHandleResult = CURLM_OK;
    CURLMcode performResult = CURLM_OK;
    bool running = true;
    std::vector<FakeCurl::Answer> answers;
    std::size_t nextAnswer = 0;
    CURLMsg message{};
    std::string tlsLibrary = "GnuTLS/3.7.9";
    std::string anchorFolder;
    CURLversion versionInfoAge = CURLVERSION_NOW;
};

Script script;
// Never shrinks before Reset, so that a released handle is recognised.
std::list<Handle> handles;
std::unordered_set<const void*> known;

const std::map<int, std::string> OPTION_NAMES = {
    {CURLOPT_URL, "URL"},
    {CURLOPT_CONNECT_ONLY, "CONNECT_ONLY"},
    {CURLOPT_NOBODY, "NOBODY"},
    {CURLOPT_INTERFACE, "INTERFACE"},
    {CURLOPT_NOSIGNAL, "NOSIGNAL"},
    {CURLOPT_FAILONERROR, "FAILONERROR"},
    {CURLOPT_TIMEOUT, "TIMEOUT"},
    {CURLOPT_FORBID_REUSE, "FORBID_REUSE"},
    {CURLOPT_FRESH_CONNECT, "FRESH_CONNECT"},
#if LIBCURL_VERSION_NUM >= 0x075700
    {CURLOPT_QUICK_EXIT, "QUICK_EXIT"},
#endif
    {CURLOPT_SOCKOPTFUNCTION, "SOCKOPTFUNCTION"},
    {CURLOPT_SOCKOPTDATA, "SOCKOPTDATA"},
    {CURLOPT_CAINFO, "CAINFO"},
};

void Note(const std::string& call) {
    Journal::Add("curl " + call);
}

Handle* Make(bool multi) {
    handles.push_back({multi});
    known.insert(&handles.back());
    return &handles.back();
}

/// The handle behind the pointer; null, with a line in the journal, when a call must not be made with it.
Handle* Usable(void* pointer, bool multi, const std::string& call) {
    if (known.count(pointer) != 0) {
        auto* handle = static_cast<Handle*>(pointer);
        if (handle->multi == multi && handle->alive)
            return handle;
    }
    Note("MISUSE in " + call + ": " + (pointer ? "not a living handle" : "null"));
    return nullptr;
}

void Release(void* pointer, bool multi, const std::string& call) {
    Note(pointer ? call : call + " null");
    if (!pointer)
        return;
    if (auto* handle = Usable(pointer, multi, call)) {
        if (handle->partner)
            Note("MISUSE in " + call + ": the transfer was not removed");
        handle->alive = false;
    }
}

void SetOption(CURL* easy, const std::string& option, const std::string& value) {
    Usable(easy, false, "setopt");
    Note("setopt " + option + " " + value);
}

} // namespace

extern "C" {

curl_version_info_data* curl_version_info(CURLversion) {
    static curl_version_info_data info{};
    info.age = script.versionInfoAge;
    info.ssl_version = script.tlsLibrary.empty() ? nullptr : script.tlsLibrary.c_str();
    info.capath = script.anchorFolder.empty() ? nullptr : script.anchorFolder.c_str();
    return &info;
}

CURLM* curl_multi_init() {
    Note("multi_init");
    return script.multiInitFails ? nullptr : Make(true);
}

CURL* curl_easy_init() {
    Note("easy_init");
    return script.easyInitFails ? nullptr : Make(false);
}

CURLcode curl_easy_setopt(CURL* easy, CURLoption option, ...) {
    va_list arguments;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs" // libcurl's signature: the last named parameter is an enumeration
    va_start(arguments, option);
#pragma GCC diagnostic pop
    const auto name = OPTION_NAMES.find(option);
    const std::string text = name == OPTION_NAMES.end() ? std::to_string(option) : name->second;
    // The options' numbers tell the type of their argument.
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        SetOption(easy, text, std::to_string(va_arg(arguments, long)));
    } else {
        const auto* value = va_arg(arguments, const char*);
        const bool isText = option < CURLOPTTYPE_FUNCTIONPOINT && option != CURLOPT_SOCKOPTDATA;
        SetOption(easy, text, value ? isText ? value : "set" : "null");
    }
    va_end(arguments);
    return CURLE_OK;
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* easy) {
    Note("add_handle");
    auto* stack = Usable(multi, true, "add_handle");
    auto* transfer = Usable(easy, false, "add_handle");
    if (stack && transfer && script.addHandleResult == CURLM_OK) {
        stack->partner = transfer;
        transfer->partner = stack;
    }
    return script.addHandleResult;
}

CURLMcode curl_multi_perform(CURLM* multi, int* running) {
    Note(*running == 0 ? "perform" : "perform, running not preset");
    const auto* stack = Usable(multi, true, "perform");
    if (!stack || !stack->partner)
        Note("MISUSE in perform: no transfer");
    *running = script.running ? 1 : 0;
    script.nextAnswer = 0;
    return script.performResult;
}

CURLMsg* curl_multi_info_read(CURLM* multi, int* left) {
    Note("info_read");
    const auto* stack = Usable(multi, true, "info_read");
    *left = 0;
    if (script.nextAnswer == script.answers.size())
        return nullptr;
    const auto& answer = script.answers[script.nextAnswer++];
    *left = answer.left;
    script.message.msg = answer.kind;
    script.message.easy_handle = stack ? stack->partner : nullptr;
    script.message.data.result = answer.result;
    return answer.none ? nullptr : &script.message;
}

CURLMcode curl_multi_remove_handle(CURLM* multi, CURL* easy) {
    if (!multi && !easy) {
        Note("remove_handle null null");
        return CURLM_BAD_HANDLE;
    }
    Note("remove_handle");
    auto* stack = Usable(multi, true, "remove_handle");
    auto* transfer = Usable(easy, false, "remove_handle");
    if (stack)
        stack->partner = nullptr;
    if (transfer)
        transfer->partner = nullptr;
    return CURLM_OK;
}

void curl_easy_cleanup(CURL* easy) {
    Release(easy, false, "easy_cleanup");
}

CURLMcode curl_multi_cleanup(CURLM* multi) {
    Release(multi, true, "multi_cleanup");
    return CURLM_OK;
}

} // extern "C"

namespace OrvStackSdk::Testing {

void FakeCurl::Reset() {
    script = Script{};
    handles.clear();
    known.clear();
}

void FakeCurl::KeepRunning() {
    script.running = true;
}

void FakeCurl::End(std::vector<Answer> answers) {
    script.running = false;
    script.answers = std::move(answers);
    script.nextAnswer = 0;
}

void FakeCurl::SetPerformResult(CURLMcode result) {
    script.performResult = result;
}

void FakeCurl::SetMultiInitFails(bool fails) {
    script.multiInitFails = fails;
}

void FakeCurl::SetEasyInitFails(bool fails) {
    script.easyInitFails = fails;
}

void FakeCurl::SetAddHandleResult(CURLMcode result) {
    script.addHandleResult = result;
}

void FakeCurl::SetVersionInfoAge(CURLversion age) {
    script.versionInfoAge = age;
}

void FakeCurl::SetTrust(const std::string& tlsLibrary, const std::string& folder) {
    script.tlsLibrary = tlsLibrary;
    script.anchorFolder = folder;
}

int FakeCurl::LiveHandles() {
    int count = 0;
    for (const auto& handle : handles)
        count += handle.alive ? 1 : 0;
    return count;
}

Entries FakeCurl::SetUpLines(const std::string& url, const std::string& interfaceName, Anchors anchors) {
    Entries lines {
        "curl multi_init", "curl easy_init", "curl setopt URL " + url, "curl setopt CONNECT_ONLY 1",
            "curl setopt NOBODY 1", "curl setopt INTERFACE if!" + interfaceName, "curl setopt NOSIGNAL 1",
            "curl setopt FAILONERROR 1", "curl setopt TIMEOUT 15", "curl setopt FORBID_REUSE 1",
            "curl setopt FRESH_CONNECT 1",
#if LIBCURL_VERSION_NUM >= 0x075700
            "curl setopt QUICK_EXIT 1",
#endif
            "curl setopt SOCKOPTFUNCTION set", "curl setopt SOCKOPTDATA set"
    };
    if (anchors == Anchors::FOLDER)
        lines.emplace_back("curl setopt CAINFO null");
    lines.emplace_back("curl add_handle");
    return lines;
}

Entries FakeCurl::CleanLines() {
    return {"curl remove_handle", "curl easy_cleanup", "curl multi_cleanup"};
}

Entries FakeCurl::IdleCleanLines() {
    return {"curl remove_handle null null", "curl easy_cleanup null", "curl multi_cleanup null"};
}

} // namespace OrvStackSdk::Testing
