#pragma once

// One entry of a platform table: a call to the operating system that a test can replace. This is where the code above
// the platform can be shown a system that fails, that is slow or that has another clock.
//
//     struct FileCalls { Call<ErrorNumber(FileHandle file)> closeFile; };
//     constinit FileCalls fileCalls = {.closeFile = {"closeFile", posix::closeFile}};
//     fileCalls.closeFile(file);
//
// A call costs what one through a function pointer costs. Any thread may call. Only current ever changes, while no
// other thread calls.

#include <utility>

namespace platform
{

template <class Signature> struct Call;

template <class Result, class... Arguments> struct Call<Result(Arguments...)>
{
    using Function = Result (*)(Arguments...);

    /// The name must live as long as the table.
    constexpr Call(const char* callName, Function function) noexcept
        : name(callName), original(function), current(function)
    {
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    Result operator()(Arguments... arguments) const { return current(std::forward<Arguments>(arguments)...); }

    const char* const name;
    const Function original; ///< the system's own
    Function current;        ///< what a call runs
};

} // namespace platform
