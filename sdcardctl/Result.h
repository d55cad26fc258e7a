#pragma once

#include <optional>
#include <utility>

#include "ExitStatus.h"

namespace sdcardctl {

/// A value, or why there is none.
template <typename Value>
class Result
{
public:
    Result(Value value) : mValue(std::move(value)) {}
    Result(Failure failure) : mFailure(std::move(failure)) {}

    explicit operator bool() const { return mValue.has_value(); }
    const Value& operator*() const { return *mValue; }
    const Value* operator->() const { return &*mValue; }
    const Failure& failure() const { return mFailure; }

private:
    std::optional<Value> mValue;
    Failure mFailure{ExitStatus::Success, {}};
};

} // namespace sdcardctl
