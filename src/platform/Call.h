#pragma once

// One entry of a platform table: a call to the operating system that a test can replace, to simulate a system that
// fails, that is slow or that has another clock.
//
//     struct FileCalls { Call<ErrorNumber(FileHandle file)> closeFile; };
//     constinit FileCalls fileCalls = {.closeFile = {"closeFile", posix::closeFile}};
//     fileCalls.closeFile(file);
//
// A call costs as much as one through a function pointer. Any thread may call. The member current may be changed while
// no other thread calls the entry; nothing else ever changes.

#include <utility>

namespace platform
{

template <class Signature> struct Call;

/// The entry for a call with this result and these arguments.
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
    const Function original; ///< the system's own function
    Function current;        ///< the function that a call runs
};

} // namespace platform
