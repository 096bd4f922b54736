// SPDX-License-Identifier: Apache-2.0
#include "ErrorObject.h"

#include "Json.h"

namespace vpnoalctl {

JsonPtr errorObject(const CommandError& error)
{
    JsonPtr object = newObject();
    addText(object, "error", validUtf8(error.summary()));
    addText(object, "key", validUtf8(error.key()));
    addText(object, "remedy", validUtf8(error.remedy()));
    return object;
}

}  // namespace vpnoalctl
