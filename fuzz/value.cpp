// Reads a value text, and compares the result, or that the process ends, with a plain implementation: a list of boolean
// words, a standard stream for numbers, and texts between quotes.

#include "datapath/common/infra/Tweaks.h"
#include "fuzz/Support.h"

#include <algorithm>
#include <map>
#include <optional>
#include <sstream>

namespace
{

std::optional<std::string> wordOf(std::string text)
{
    static const std::map<std::string, std::string> WORDS = {{"true", "1"},    {"yes", "1"}, {"on", "1"},
                                                             {"enabled", "1"}, {"ok", "1"},  {"false", "0"},
                                                             {"no", "0"},      {"off", "0"}, {"disabled", "0"}};
    std::ranges::for_each(text, [](char& letter) { letter += letter >= 'A' && letter <= 'Z' ? 'a' - 'A' : 0; });
    const auto found = WORDS.find(text);
    return found == WORDS.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> numberOf(const std::string& text)
{
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    std::istringstream stream(isHex ? text.substr(2) : text);
    std::int64_t value = 0;
    return stream >> (isHex ? std::hex : std::dec) >> value ? std::optional(std::to_string(value)) : std::nullopt;
}

/// The value as it is printed; nothing if the process ends.
std::optional<std::string> printedFormOf(const std::string& text)
{
    if (!text.starts_with('"'))
    {
        const auto word = wordOf(text);
        return word ? word : numberOf(text);
    }
    if (text.size() < 2 || text.back() != '"')
    {
        return std::nullopt;
    }
    return wordOf(text.substr(1, text.size() - 2)).value_or(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size)
{
    const std::string text(data, size);
    std::optional<std::string> printed;
    endsProcess([&] { printed = Tweaks::Tweak(text).toString(); });
    require(printed == printedFormOf(text), "the printed form, or whether the process ends");
    if (printed)
    {
        require(Tweaks::Tweak(*printed).toString() == *printed, "the printed form is read as something else");
    }
    return 0;
}
