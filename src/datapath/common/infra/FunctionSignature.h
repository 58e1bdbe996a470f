#pragma once

// Cuts a function's name out of the signature text that the compiler gives for it. Everything here
// runs while compiling. GCC and clang are understood:
//
//     "void Q<T>::put(T, int) [with T = Action*]"      GCC
//     "void Q<Action *>::put(T, int) [T = Action *]"   clang
//
// both become "Q<class Action *>::put". What is cut away: the return type, the parameters, the
// qualifiers, unnamed namespaces, and whatever follows the first lambda.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

namespace MethodTextInternal
{

constexpr std::string_view trimmed(std::string_view text)
{
    while (text.starts_with(' '))
    {
        text.remove_prefix(1);
    }
    while (text.ends_with(' '))
    {
        text.remove_suffix(1);
    }
    return text;
}

/// The part of text up to the first separator outside of all brackets; all of it if there is none.
constexpr std::string_view upToSeparator(std::string_view text, std::string_view separators)
{
    int depth = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const char c = text[i];
        if (depth == 0 && separators.find(c) != std::string_view::npos)
        {
            return text.substr(0, i);
        }
        if (c == '<' || c == '(' || c == '[' || c == '{')
        {
            ++depth;
        }
        else if (c == '>' || c == ')' || c == ']' || c == '}')
        {
            --depth;
        }
    }
    return text;
}

/// A text built while compiling. One that outgrows the capacity fails to compile.
struct SignatureText
{
    static constexpr std::size_t CAPACITY = 4096;

    constexpr SignatureText& operator+=(std::string_view more)
    {
        for (const char c : more)
        {
            chars[length++] = c;
        }
        return *this;
    }

    [[nodiscard]] constexpr std::string_view view() const { return {chars, length}; }

    char chars[CAPACITY] = {};
    std::size_t length = 0;
};

/// What a template parameter stands for.
struct Binding
{
    std::string_view argument; ///< empty if the parameter is not listed
    bool isType = true;        ///< or else a value
};

/// Looks a template parameter up in the signature's trailing list. GCC alone needs the list; clang
/// has put the arguments in place.
constexpr Binding boundTo(std::string_view signature, std::string_view parameter)
{
    constexpr std::string_view LIST = " [with ";
    const std::size_t list = signature.find(LIST);
    if (list == std::string_view::npos)
    {
        return {};
    }
    std::string_view bindings = signature.substr(list + LIST.size());
    bindings.remove_suffix(1);
    while (!bindings.empty())
    {
        const std::string_view binding = upToSeparator(bindings, ";");
        const std::size_t equals = binding.find(" = ");
        const std::string_view declared = trimmed(binding.substr(0, equals)); // "T", or "int N" for a value
        if (declared.substr(declared.rfind(' ') + 1) == parameter)
        {
            return {.argument = binding.substr(equals + 3), .isType = declared == parameter};
        }
        bindings.remove_prefix(binding.size() + (binding.size() < bindings.size() ? 1 : 0));
    }
    return {};
}

/// The log's spelling of a built-in type, a number or a truth value; empty for any other text.
constexpr std::string_view builtInSpelling(std::string_view type)
{
    constexpr std::string_view LONG = sizeof(long) == 8 ? "__int64" : "long";
    constexpr std::string_view UNSIGNED_LONG = sizeof(long) == 8 ? "unsigned __int64" : "unsigned long";
    constexpr auto SPELLINGS = std::to_array<std::pair<std::string_view, std::string_view>>({
        {"void", "void"},
        {"bool", "bool"},
        {"true", "true"},
        {"false", "false"},
        {"char", "char"},
        {"signed char", "signed char"},
        {"unsigned char", "unsigned char"},
        {"wchar_t", "wchar_t"},
        {"char8_t", "char8_t"},
        {"char16_t", "char16_t"},
        {"char32_t", "char32_t"},
        {"std::nullptr_t", "std::nullptr_t"},
        {"float", "float"},
        {"double", "double"},
        {"long double", "long double"},
        {"short int", "short"},
        {"short", "short"},
        {"short unsigned int", "unsigned short"},
        {"unsigned short", "unsigned short"},
        {"int", "int"},
        {"unsigned int", "unsigned int"},
        {"long int", LONG},
        {"long", LONG},
        {"long unsigned int", UNSIGNED_LONG},
        {"unsigned long", UNSIGNED_LONG},
        {"long long int", "__int64"},
        {"long long", "__int64"},
        {"long long unsigned int", "unsigned __int64"},
        {"unsigned long long", "unsigned __int64"},
    });
    for (const auto& [spelledByCompiler, spelledByLog] : SPELLINGS)
    {
        if (type == spelledByCompiler)
        {
            return spelledByLog;
        }
    }
    constexpr std::string_view STARTS_OF_VALUES = "-'0123456789";
    const bool isValue = !type.empty() && STARTS_OF_VALUES.find(type[0]) != std::string_view::npos;
    return isValue ? type : std::string_view();
}

constexpr void appendTypeList(SignatureText& out, std::string_view signature, std::string_view list);
constexpr SignatureText methodNameOf(std::string_view signature);

/// Appends a name without the unnamed namespaces that it passes through.
constexpr void appendName(SignatureText& out, std::string_view name)
{
    constexpr std::string_view UNNAMED = "{anonymous}::";
    for (std::size_t at = name.find(UNNAMED); at != std::string_view::npos; at = name.find(UNNAMED))
    {
        out += name.substr(0, at);
        name.remove_prefix(at + UNNAMED.size());
    }
    out += name;
}

/// Appends the log's spelling of a type or value, which may be a template parameter's name.
constexpr void appendType(SignatureText& out, std::string_view signature, std::string_view argument)
{
    const Binding binding = boundTo(signature, trimmed(argument));
    const std::string_view type = trimmed(binding.argument.empty() ? argument : binding.argument);
    // What follows the inner type in the log's order.
    constexpr std::array<std::string_view, 3> SUFFIXES = {"*", "&&", "&"};
    constexpr std::array<std::string_view, 2> QUALIFIERS = {"const", "volatile"};
    for (const std::string_view suffix : SUFFIXES)
    {
        if (type.ends_with(suffix))
        {
            appendType(out, signature, type.substr(0, type.size() - suffix.size()));
            (out += " ") += suffix;
            return;
        }
    }
    for (const std::string_view qualifier : QUALIFIERS)
    {
        const std::size_t rest = type.size() - std::min(type.size(), qualifier.size() + 1);
        if (type.starts_with(qualifier) && type.substr(qualifier.size()).starts_with(' '))
        {
            appendType(out, signature, type.substr(qualifier.size()));
            (out += " ") += qualifier;
            return;
        }
        if (type.ends_with(qualifier) && (type[rest] == ' ' || type[rest] == '*'))
        {
            appendType(out, signature, type.substr(0, type.size() - qualifier.size()));
            (out += " ") += qualifier;
            return;
        }
    }
    const std::string_view builtIn = builtInSpelling(type);
    const std::string_view name = upToSeparator(type, "<");
    if (!binding.isType || !builtIn.empty() || type.ends_with(')') || type.ends_with(']'))
    {
        out += builtIn.empty() ? type : builtIn; // values, functions and arrays stay as they are
    }
    else if (type.find("<lambda") != std::string_view::npos)
    {
        (out += "class ") += methodNameOf(type).view();
    }
    else
    {
        out += "class ";
        appendName(out, name);
        if (name.size() < type.size())
        {
            appendTypeList(out, signature, type.substr(name.size() + 1, type.size() - name.size() - 2));
        }
    }
}

/// Appends the log's spelling of template arguments, separated by commas. A parameter pack is
/// replaced by all that it stands for.
constexpr void appendTypes(SignatureText& out, std::string_view signature, std::string_view list)
{
    const std::size_t start = out.length;
    while (!list.empty())
    {
        const std::string_view argument = upToSeparator(list, ",");
        const std::string_view pack = boundTo(signature, trimmed(argument)).argument;
        SignatureText spelled;
        if (pack.starts_with('{') && pack.ends_with('}'))
        {
            appendTypes(spelled, signature, pack.substr(1, pack.size() - 2));
        }
        else
        {
            appendType(spelled, signature, argument);
        }
        (out += out.length > start && spelled.length > 0 ? "," : "") += spelled.view();
        list.remove_prefix(std::min(argument.size() + 1, list.size()));
    }
}

/// Appends the log's spelling of a template argument list, with its angle brackets.
constexpr void appendTypeList(SignatureText& out, std::string_view signature, std::string_view list)
{
    out += "<";
    appendTypes(out, signature, list);
    out += out.view().ends_with('>') ? " >" : ">";
}

/// The bracketed group that text begins with, both brackets included.
constexpr std::string_view leadingGroup(std::string_view text)
{
    const char closing = text[0] == '<' ? '>' : ')';
    const char closings[] = {closing, '\0'};
    return text.substr(0, upToSeparator(text.substr(1), closings).size() + 2);
}

/// The operator's name that text begins with: "operator()", "operator bool", "operator<".
constexpr std::string_view leadingOperator(std::string_view text)
{
    constexpr std::string_view CALL = "operator()";
    return text.starts_with(CALL) ? CALL : text.substr(0, text.find('('));
}

/// How much of text is a return type that holds parentheses: "decltype (a + b) ", or what comes
/// before the name of a function that returns a pointer or reference to a function or array, as in
/// "(* name(int))(char)".
constexpr std::size_t returnTypeLength(std::string_view text)
{
    if (text.starts_with("decltype"))
    {
        const std::size_t open = text.find('(');
        return open + leadingGroup(text.substr(open)).size();
    }
    return text.starts_with('(') ? std::min(text.find_first_of("*&") + 1, text.size()) : 0;
}

/// Drops the qualifiers between a parameter list and what follows it.
constexpr std::string_view withoutQualifiers(std::string_view text)
{
    for (const std::string_view qualifier : {" const", " volatile", " &&", " &", " noexcept"})
    {
        if (text.starts_with(qualifier))
        {
            text.remove_prefix(qualifier.size());
        }
    }
    return text;
}

/// Takes the operator's name at the front of rest into the name, a template parameter replaced.
constexpr std::size_t takeOperator(SignatureText& name, std::string_view rest, std::string_view signature)
{
    const std::string_view operatorName = leadingOperator(rest);
    const std::size_t blank = std::min(operatorName.find(' '), operatorName.size() - 1);
    const std::string_view converted = boundTo(signature, operatorName.substr(blank + 1)).argument;
    name += converted.empty() ? operatorName : "operator ";
    name += converted;
    return operatorName.size();
}

/// Takes the angle brackets at the front of rest into the name.
constexpr std::size_t takeAngleBrackets(SignatureText& name, std::string_view rest, std::string_view signature)
{
    const std::string_view group = leadingGroup(rest);
    if (group.starts_with("<unnamed"))
    {
        if (!name.view().ends_with(':'))
        {
            name.length = 0; // GCC puts no blank between a return type and this
        }
        name += group;
    }
    else
    {
        appendTypeList(name, signature, group.substr(1, group.size() - 2));
    }
    return group.size();
}

/// Takes the piece at the front of rest into the name, or drops it. Returns the length of the piece,
/// 0 when the name has come to its end.
constexpr std::size_t takePiece(SignatureText& name, std::string_view rest, std::string_view signature)
{
    const bool startsWord = name.length == 0 || name.view().ends_with(':');
    if (rest.starts_with("<lambda") || rest.starts_with("(anonymous class)"))
    {
        name += "<lambda>";
        return 0;
    }
    if (startsWord && (rest.starts_with("{anonymous}::") || rest.starts_with("(anonymous namespace)::")))
    {
        return rest.find("::") + 2;
    }
    if (name.length == 0 && returnTypeLength(rest) > 0)
    {
        return returnTypeLength(rest);
    }
    if (startsWord && rest.starts_with("operator"))
    {
        return takeOperator(name, rest, signature);
    }
    if (rest.starts_with(" ["))
    {
        return 0; // the list of template arguments
    }
    switch (rest[0])
    {
    case ' ':
    case '*':
    case '&':
        name.length = 0; // all so far was a specifier or the return type
        return 1;
    case '(':
    {
        // Parameters. A name goes on after those of the function that encloses a lambda or a class.
        const std::string_view behind = withoutQualifiers(rest.substr(leadingGroup(rest).size()));
        return behind.starts_with("::") ? rest.size() - behind.size() : 0;
    }
    case '<':
        return takeAngleBrackets(name, rest, signature);
    default:
        name += rest.substr(0, 1);
        return 1;
    }
}

/// The name of the function with the given signature.
constexpr SignatureText methodNameOf(std::string_view signature)
{
    SignatureText name;
    std::string_view rest = signature;
    while (!rest.empty())
    {
        const std::size_t taken = takePiece(name, rest, signature);
        if (taken == 0)
        {
            break;
        }
        rest.remove_prefix(taken);
    }
    return name;
}

} // namespace MethodTextInternal
