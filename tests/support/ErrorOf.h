// SPDX-License-Identifier: Apache-2.0
//
// The text of an exception.
#ifndef TESTSUPPORT_ERROROF_H
#define TESTSUPPORT_ERROROF_H

#include <string>

namespace testsupport {

/// What the action's exception of this type says; "no error" when it throws none. Other exceptions pass.
template <class Error, class Action>
std::string errorOf(Action action)
{
    try {
        action();
    } catch (const Error& error) {
        return error.what();
    }
    return "no error";
}

}  // namespace testsupport

#endif
