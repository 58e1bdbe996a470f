#pragma once

// The name of the calling function as the log writes it: the class, two colons and the member
// ("Tweaks::Tweak::longVal"), or the bare name of a free function ("wWinMain").
//
//     LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "Invoked." << std::endl;
//
// THIS_METHOD is worked out by the compiler and costs nothing at run time. It may be used on any
// thread and before main; the texts it names live as long as the program.
//
// A lambda is written as its enclosing function followed by "::<lambda>". The arguments of a class
// template are part of the class name, user-defined types among them after the keyword "class"
// ("PriorityQueue<class ActiveObject::Action *>::enqueue"); those of a function template and
// unnamed namespaces are left out.

#include "datapath/common/infra/FunctionSignature.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>

/// The name of one function in both of its written forms.
struct MethodText
{
    const char* text;        ///< as the function is called, zero-terminated: "Tweaks::Tweak::longVal"
    std::string_view fields; ///< as a log line holds it: "Tweaks::Tweak,longVal"
};

namespace MethodTextInternal
{

/// The pieces of a cleaned method text: the class field, and the method field in two parts.
struct MethodFields
{
    std::string_view className;
    std::string_view method;
    std::string_view suffix; ///< "<lambda>" or nothing
};

/// The last "::" splits; a text without one has an empty class. Of a lambda only "<lambda>" is kept,
/// as a part of its enclosing function's name.
constexpr MethodFields splitMethodText(std::string_view text)
{
    const std::size_t lambda = text.find("<lambda");
    const bool isLambda = lambda != std::string_view::npos;
    const std::string_view kept = text.substr(0, lambda);
    const std::string_view enclosing = isLambda && lambda >= 2 ? text.substr(0, lambda - 2) : kept;
    const std::size_t colon = enclosing.rfind(':');
    const bool hasClass = colon != std::string_view::npos;
    return {.className = hasClass ? kept.substr(0, colon == 0 ? 0 : colon - 1) : std::string_view(),
            .method = hasClass ? kept.substr(colon + 1) : kept,
            .suffix = isLambda ? "<lambda>" : ""};
}

/// A function signature as a template argument.
template <std::size_t SIZE> struct Signature
{
    // NOLINTNEXTLINE(google-explicit-constructor): stands in for the literal it copies
    constexpr Signature(const char* literal)
    {
        for (std::size_t i = 0; literal[i] != '\0'; ++i)
        {
            text[i] = literal[i];
        }
    }

    [[nodiscard]] constexpr std::string_view view() const { return text; }

    char text[SIZE] = {};
};

template <std::size_t SIZE> Signature(const char (&)[SIZE]) -> Signature<SIZE>;

/// For generic lambdas inside of templates, where GCC does not say how long the signature is.
template <std::same_as<const char*> Pointer> Signature(Pointer) -> Signature<SignatureText::CAPACITY>;

constexpr SignatureText fieldsOf(std::string_view signature)
{
    const SignatureText name = methodNameOf(signature);
    const MethodFields fields = splitMethodText(name.view());
    SignatureText joined;
    (((joined += fields.className) += ",") += fields.method) += fields.suffix;
    return joined;
}

/// The text that MAKE draws from a signature, kept by the compiler with a terminating zero.
template <Signature SIGNATURE, SignatureText (*MAKE)(std::string_view)>
inline constexpr auto STORED_TEXT = [] {
    // Of a copy: GCC's sanitizers do not follow pointers into template arguments while compiling.
    constexpr SignatureText MADE = [](auto signature) { return MAKE(signature.view()); }(SIGNATURE);
    static_assert(MADE.length > 0, "this function's signature is not understood");
    std::array<char, MADE.length + 1> stored{};
    for (std::size_t i = 0; i < MADE.length; ++i)
    {
        stored[i] = MADE.chars[i];
    }
    return stored;
}();

template <Signature SIGNATURE>
inline constexpr MethodText METHOD_TEXT{
    STORED_TEXT<SIGNATURE, methodNameOf>.data(),
    {STORED_TEXT<SIGNATURE, fieldsOf>.data(), STORED_TEXT<SIGNATURE, fieldsOf>.size() - 1}};

} // namespace MethodTextInternal

/// Turns a method text into the class field, a comma and the method field of a log line.
inline void cleanMethodName(std::string& name)
{
    const auto [className, method, suffix] = MethodTextInternal::splitMethodText(name);
    name = std::string(className).append(",").append(method).append(suffix);
}

/// The MethodText of the function in which it stands.
#define THIS_METHOD (MethodTextInternal::METHOD_TEXT<MethodTextInternal::Signature{__PRETTY_FUNCTION__}>)
