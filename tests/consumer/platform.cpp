// SPDX-License-Identifier: Apache-2.0
// A gateway's own program that uses the platform without the library.
#include <CommonUtils/Logger.h>
#include <CommonUtils/StringHelpers.h>

int main() {
    CommonUtils::Logger("platform", 0).Info() << "on " << CommonUtils::StringHelpers::ToUpper("this gateway");
    return 0;
}
