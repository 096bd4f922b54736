// SPDX-License-Identifier: Apache-2.0
//
// Runs several steps, also after one has failed.
#ifndef VKNETCONFIG_STEPERRORS_H
#define VKNETCONFIG_STEPERRORS_H

#include <exception>

namespace vknetconfig {

/// Runs each step, and throws the first failure at the end.
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
