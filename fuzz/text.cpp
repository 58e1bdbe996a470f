// Loads a tweak file. Each tweak in the table has the value that a plain implementation reads, or the process ends. If
// the first byte is 's', the rest is the signed file, which is read strictly; otherwise it is an extension file.

#include "datapath/common/infra/Tweaks.h"
#include "fuzz/Support.h"

#include <algorithm>

namespace
{

struct FreshTweaks : Tweaks
{
};

std::string trimmed(std::string text)
{
    const auto isBlank = [](char character) {
        return std::string_view(" \t\r\n").find(character) != std::string::npos;
    };
    text.erase(std::find_if_not(text.rbegin(), text.rend(), isBlank).base(), text.end());
    text.erase(text.begin(), std::ranges::find_if_not(text, isBlank));
    return text;
}

struct Definition
{
    std::string name;
    std::string valueText;
};

std::vector<Definition> definitionsOf(const std::vector<std::string>& lines)
{
    std::vector<Definition> definitions;
    for (std::string line : lines)
    {
        line = line.substr(0, line.find(';'));
        if (const std::size_t equals = line.find('='); equals != std::string::npos)
        {
            definitions.push_back({trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1))});
        }
    }
    return definitions;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const bool isSigned = *data == 's';
    const std::string text(data + 1, size - 1);
    const std::vector<std::string> lines = linesOf(text);
    files.clear();
    if (isSigned)
    {
        std::string read;
        for (const std::string& line : lines)
        {
            read += line + "\n";
        }
        files["olm_tweaks//tweaks.txt.1"] = text;
        files["olm_tweaks//tweaks.txt.1.sig"] = "1\n" + std::to_string(crc32Of(read)) + "\n";
    }
    else
    {
        files["tweaks_extension.txt"] = text;
    }
    endsProcess([&] {
        const FreshTweaks tweaks;
        std::map<std::string, std::string, CaseInsensitiveLess> expected;
        const std::vector<Definition> definitions = definitionsOf(lines);
        for (const auto& [name, valueText] : definitions)
        {
            if (std::ranges::count(definitions, name, &Definition::name) == 1)
            {
                expected[name] = valueText;
            }
        }
        constexpr std::int64_t ABSENT = -4711;
        for (const auto& [name, valueText] : expected)
        {
            if (valueText.empty() || Tweaks::Tweak(valueText).isInt())
            {
                const std::int64_t value = valueText.empty() ? ABSENT : Tweaks::Tweak(valueText).longVal();
                require(tweaks.longVal(name, ABSENT) == value, name.c_str());
            }
        }
    });
    return 0;
}
