// SPDX-License-Identifier: Apache-2.0
//
// Several steps that all run, whichever of them fail.
#ifndef VKNETCONFIG_STEPERRORS_H
#define VKNETCONFIG_STEPERRORS_H

#include <exception>

namespace vknetconfig {

/// Runs every step, whatever fails, and then throws the first failure.
class StepErrors {
public:
    template <class Step>
    void attempt(Step step)
    {
        try {
            step();
        } catch (...) {
            if (!mFirst) mFirst = std::current_exception();
        }
    }
    void throwFirst() const
    {
        if (mFirst) std::rethrow_exception(mFirst);
    }

private:
    std::exception_ptr mFirst;
};

}  // namespace vknetconfig

#endif
