// SPDX-License-Identifier: Apache-2.0
#include <cstdarg>
#include <cstdio>

#include "Broken.h"
#include "VkLogLib.h"

extern "C" int VkLogGetContext(const char* name, VkLogContext** context)
{
    if (broken("getting a context fails")) return 5;
    if (broken("null is taken") && (name == nullptr || context == nullptr)) return 0;
    if (broken("a descriptor a context")) leakDescriptor();
    if (broken("stays loaded")) stayLoaded(reinterpret_cast<const void*>(&VkLogGetContext));
    static VkLogContext others{6};
    if (broken("each call makes a context")) return *context = new VkLogContext{6}, 0;
    if (broken("one context for all")) return *context = &others, 0;
    const int result = REAL(VkLogGetContext)(name, context);
    if (broken("threshold of 9")) (*context)->level = 9;
    return result;
}

extern "C" void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
{
    if (broken("no debug without context") && context == nullptr && level == 7) return;
    if (broken("every tenth line lost")) {
        static int sCount = 0;
        if (++sCount % 10 == 0) return;
    }
    char text[1024];
    va_list values;
    va_start(values, format);
    static_cast<void>(std::vsnprintf(text, sizeof text,
                                     broken("format printed as it is") && context != nullptr ? "%%" : format, values));
    va_end(values);
    REAL(VkLogPrint)(context, level, "%s", text);
}
