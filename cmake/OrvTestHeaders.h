// SPDX-License-Identifier: Apache-2.0
// What most test programs include, compiled once for all of them (see OrvTest.cmake). Every source still includes what
// it uses: not every build has this.
#pragma once

#include "OrvHeaders.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <iostream>
#include <stdexcept>
