#pragma once

// The name of the calling function as the log writes it: the class, two colons and the member
// ("Tweaks::Tweak::longVal"), or the bare name of a free function ("wWinMain"). A lambda is its enclosing function
// followed by "::<lambda>".
//
//     LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "Invoked." << std::endl;
//     static constexpr MethodText METHOD = MethodText::of("PriorityQueue<class ActiveObject::Action *>::enqueue");
//
// The compiler computes both, so they cost nothing at run time and may be used on any thread and before main.
// TAVRO_METHOD understands plain functions, members and lambdas of GCC and clang. In any other function, a template for
// instance, it does not compile: state the text with MethodText::of, also to log in the name of another function.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

/// The pieces of a method text: the class field, and the method field in two parts.
struct MethodFields
{
    std::string_view className;
    std::string_view method;
    std::string_view suffix; ///< "<lambda>" or nothing
};

/// The last "::" separates the class, which may be missing, from the method. Everything from a lambda on becomes
/// "<lambda>", which counts as a part of its enclosing function's name.
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

/// A method text in the form that a log line holds: "Tweaks::Tweak,longVal".
class MethodText
{
public:
    constexpr MethodText() = default;

    explicit constexpr MethodText(const MethodFields& fields)
    {
        for (const std::string_view piece : {fields.className, std::string_view(","), fields.method, fields.suffix})
        {
            std::copy(piece.begin(), piece.end(), m_fields.begin() + m_length); // a longer text does not compile
            m_length += piece.size();
        }
    }

    [[nodiscard]] static consteval MethodText of(std::string_view text) { return MethodText(splitMethodText(text)); }

    [[nodiscard]] constexpr std::string_view fields() const { return {m_fields.data(), m_length}; }

private:
    std::array<char, 120> m_fields{};
    std::size_t m_length = 0;
};

namespace MethodTextInternal
{

/// Both compilers write a return type, the name, the parameters and, within a lambda, more after these:
///     "static std::string (anonymous namespace)::Outer::f(int)"
///     "std::string {anonymous}::Outer::f(int)::<lambda(char)>"
/// Returns where the parameters begin. Parentheses within template arguments are skipped.
constexpr std::size_t findParameters(std::string_view signature)
{
    constexpr std::string_view UNNAMED = "(anonymous namespace)";
    int depth = 0;
    for (std::size_t i = 0; i < signature.size(); ++i)
    {
        if (signature.substr(i).starts_with(UNNAMED))
        {
            i += UNNAMED.size() - 1;
            continue;
        }
        if (signature[i] == '(' && depth == 0)
        {
            return i;
        }
        depth += signature[i] == '<' || signature[i] == '(' ? 1 : 0;
        depth -= signature[i] == '>' || signature[i] == ')' ? 1 : 0;
    }
    return std::string_view::npos;
}

/// The name without an unnamed namespace at its beginning; empty if the unnamed namespace is within another one.
constexpr std::string_view withoutUnnamed(std::string_view name)
{
    for (const std::string_view unnamed : {"{anonymous}::", "(anonymous namespace)::"})
    {
        const std::size_t found = name.rfind(unnamed);
        if (found != std::string_view::npos)
        {
            name.remove_prefix(found > 0 && name[found - 1] == ':' ? name.size() : found + unnamed.size());
        }
    }
    return name;
}

constexpr bool isUnderstood(std::string_view signature, std::string_view name)
{
    const bool isTemplate = signature.ends_with(']') || name.find_first_of("<>()") != std::string_view::npos;
    return !name.empty() && !isTemplate && name.find("operator") == std::string_view::npos;
}

constexpr MethodText methodTextOf(std::string_view signature)
{
    const std::size_t parameters = findParameters(signature);
    std::string_view name = withoutUnnamed(signature.substr(0, parameters));
    name.remove_prefix(name.find_last_of(" *&") + 1);
    if (parameters == std::string_view::npos || !isUnderstood(signature, name))
    {
        throw "this function's signature is not understood: state its text with MethodText::of";
    }
    const std::string_view rest = signature.substr(parameters);
    constexpr std::size_t NONE = std::string_view::npos;
    const bool isLambda = rest.find("::<lambda") != NONE || rest.find("::(anonymous class)") != NONE;
    MethodFields fields = splitMethodText(name);
    fields.suffix = isLambda ? "::<lambda>" : "";
    return MethodText(fields);
}

/// A function signature as a template argument, so that its text is stored once.
template <std::size_t SIZE> struct Signature
{
    // NOLINTNEXTLINE(google-explicit-constructor): a literal converts to it
    constexpr Signature(const char (&literal)[SIZE]) { std::copy_n(literal, SIZE, text); }

    char text[SIZE] = {};
};

// The lambda takes a copy: with sanitizers, GCC rejects pointers into template arguments in constant expressions.
template <Signature SIGNATURE>
inline constexpr MethodText METHOD_TEXT = [](auto signature) { return methodTextOf(signature.text); }(SIGNATURE);

} // namespace MethodTextInternal

/// Turns a method text that is known only at run time into the class field, a comma and the method field.
inline void cleanMethodName(std::string& name)
{
    const auto [className, method, suffix] = splitMethodText(name);
    name = std::string(className).append(",").append(method).append(suffix);
}

/// The MethodText of the function in which it stands.
#define TAVRO_METHOD (MethodTextInternal::METHOD_TEXT<MethodTextInternal::Signature{__PRETTY_FUNCTION__}>)
