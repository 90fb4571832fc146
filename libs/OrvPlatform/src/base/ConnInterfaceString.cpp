// SPDX-License-Identifier: Apache-2.0
#include "ConnInterfaceString.h"

std::string ConnInterfaceString;
