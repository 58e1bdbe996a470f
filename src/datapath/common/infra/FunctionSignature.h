#pragma once

// Cuts a function's name out of the signature text that the compiler gives for it. Everything here
// runs while compiling. GCC and clang are understood:
//
//     "void Q<T>::put(T, int) [with T = Action*]"      GCC
//     "void Q<Action *>::put(T, int) [T = Action *]"   clang
//
// both become "Q<class Action *>::put". What is cut away: the return type, the parameters, the
// qualifiers, unnamed namespaces, and whatever follows the first lambda.

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
    static constexpr std::size_t CAPACITY = 1024;

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

/// What the signature's trailing list binds the template parameter to; empty if it is not listed.
/// GCC alone needs the list; clang has put the arguments in place.
constexpr std::string_view boundTo(std::string_view signature, std::string_view parameter)
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
        const std::string_view declared = binding.substr(0, equals); // "T", or "int N" for a value
        if (declared.substr(declared.rfind(' ') + 1) == parameter)
        {
            return binding.substr(equals + 3);
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
        {"char16_t", "char16_t"},
        {"float", "float"},
        {"double", "double"},
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
    const bool isNumber = !type.empty() && (type[0] == '-' || (type[0] >= '0' && type[0] <= '9'));
    return isNumber ? type : std::string_view();
}

constexpr void appendTypeList(SignatureText& out, std::string_view signature, std::string_view list);

/// Appends the log's spelling of one template argument, a parameter replaced by what it stands for.
constexpr void appendType(SignatureText& out, std::string_view signature, std::string_view argument)
{
    const std::string_view bound = boundTo(signature, trimmed(argument));
    const std::string_view type = trimmed(bound.empty() ? argument : bound);
    if (type.ends_with('*') || type.ends_with('&'))
    {
        appendType(out, signature, type.substr(0, type.size() - 1));
        (out += " ") += type.substr(type.size() - 1);
        return;
    }
    if (type.starts_with("const "))
    {
        appendType(out, signature, type.substr(6));
        out += " const";
        return;
    }
    if (const std::string_view builtIn = builtInSpelling(type); !builtIn.empty())
    {
        out += builtIn;
        return;
    }
    const std::string_view name = upToSeparator(type, "<");
    (out += "class ") += name;
    if (name.size() < type.size())
    {
        appendTypeList(out, signature, type.substr(name.size() + 1, type.size() - name.size() - 2));
    }
}

/// Appends the log's spelling of a template argument list, with its angle brackets.
constexpr void appendTypeList(SignatureText& out, std::string_view signature, std::string_view list)
{
    out += "<";
    while (!list.empty())
    {
        const std::string_view argument = upToSeparator(list, ",");
        appendType(out, signature, argument);
        list.remove_prefix(argument.size());
        if (!list.empty())
        {
            out += ",";
            list.remove_prefix(1);
        }
    }
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

/// The name of the function with the given signature.
constexpr SignatureText methodNameOf(std::string_view signature)
{
    constexpr std::array UNNAMED_NAMESPACES{std::string_view("{anonymous}::"),
                                            std::string_view("(anonymous namespace)::")};
    SignatureText name;
    std::string_view rest = signature;
    while (!rest.empty() && !rest.starts_with(" ["))
    {
        if (rest.starts_with("<lambda") || rest.starts_with("(anonymous class)"))
        {
            return name += "<lambda>";
        }
        std::size_t consumed = 1;
        const bool startsWord = name.length == 0 || name.view().ends_with(':');
        if (startsWord && (rest.starts_with(UNNAMED_NAMESPACES[0]) || rest.starts_with(UNNAMED_NAMESPACES[1])))
        {
            consumed = rest.find("::") + 2;
        }
        else if (startsWord && rest.starts_with("operator"))
        {
            const std::string_view operatorName = leadingOperator(rest);
            name += operatorName;
            consumed = operatorName.size();
        }
        else if (rest.starts_with("(*") || rest[0] == ' ' || rest[0] == '*' || rest[0] == '&')
        {
            // All so far was a return type, or the start of one that is a pointer to a function.
            consumed = rest.starts_with("(*") ? 2 : 1;
            name.length = 0;
        }
        else if (rest[0] == '(')
        {
            const std::string_view behind = withoutQualifiers(rest.substr(leadingGroup(rest).size()));
            if (!behind.starts_with("::"))
            {
                return name;
            }
            consumed = rest.size() - behind.size();
        }
        else if (rest[0] == '<')
        {
            const std::string_view group = leadingGroup(rest);
            appendTypeList(name, signature, group.substr(1, group.size() - 2));
            consumed = group.size();
        }
        else
        {
            name += rest.substr(0, 1);
        }
        rest.remove_prefix(consumed);
    }
    return name;
}

} // namespace MethodTextInternal
