// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvTest {

/// While it lives, this process gets no further socket and no further eventfd, as if it had used up its descriptors.
/// A real limit would hit the sanitizers too.
class NoMoreDescriptors {
public:
    NoMoreDescriptors();
    ~NoMoreDescriptors();
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;
};

} // namespace OrvTest
