// SPDX-License-Identifier: Apache-2.0
#include "EndLeakCheck.h"

namespace {

bool sIsTurnedOff = false;

}  // namespace

void testsupport::endWithoutLeakCheck()
{
    sIsTurnedOff = true;
}

// The sanitizer's question when the process ends.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();

extern "C" int __lsan_is_turned_off()
{
    return sIsTurnedOff ? 1 : 0;
}
