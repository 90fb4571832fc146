// SPDX-License-Identifier: Apache-2.0
#include "base/IpAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>

namespace OrvPlatform {

namespace {

using Bytes = std::array<unsigned char, sizeof(in6_addr)>;

/// @param bytes all zero; gets the address
bool Parse(const std::string& text, Bytes& bytes) {
    return text.find('\0') == std::string::npos && (::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 ||
                                                    ::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1);
}

} // namespace

bool IsIpAddress(const std::string& text) {
    Bytes bytes{};
    return Parse(text, bytes);
}

bool IsUnspecifiedAddress(const std::string& text) {
    Bytes bytes{};
    return Parse(text, bytes) && std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
}

} // namespace OrvPlatform
