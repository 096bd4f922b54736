// SPDX-License-Identifier: Apache-2.0
//
// A value, or the reason why there is none; and the outcome of a check. For functions whose caller decides what a
// failure means. Inside a layer failures are exceptions.
#ifndef WFOAL_RESULT_H
#define WFOAL_RESULT_H

#include <string>
#include <utility>
#include <variant>

namespace wfoal {

/// Why something is refused: a phrase without a capital letter and without a full stop.
struct Fault {
    std::string reason;
};

/// Converts to true when it holds a value. Access the value or the fault only after looking.
template <class Value>
class [[nodiscard]] Result {
public:
    Result(Value value) : mContent(std::move(value)) {}
    Result(Fault fault) : mContent(std::move(fault)) {}

    explicit operator bool() const { return std::holds_alternative<Value>(mContent); }
    const Value& operator*() const { return *std::get_if<Value>(&mContent); }
    Value& operator*() { return *std::get_if<Value>(&mContent); }
    const Value* operator->() const { return std::get_if<Value>(&mContent); }
    const std::string& reason() const { return std::get_if<Fault>(&mContent)->reason; }

private:
    std::variant<Value, Fault> mContent;
};

/// The outcome of a check that yields nothing: converts to true when it passed.
using Check = Result<std::monostate>;

inline Check passed()
{
    return std::monostate{};
}

}  // namespace wfoal

#endif
