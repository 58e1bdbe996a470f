// A value text becomes what a standard stream and a plain reading of the quotes make of it, or ends the
// process.

#include "datapath/common/infra/Tweaks.h"
#include "fuzz/Support.h"

#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size)
{
    const std::string text(data, size);
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    std::istringstream stream(isHex ? text.substr(2) : text);
    std::int64_t value = 0;
    const bool isNumber = static_cast<bool>(stream >> (isHex ? std::hex : std::dec) >> value);
    std::string printed;
    const bool ended = endsProcess([&] { printed = Tweaks::Tweak(text).toString(); });
    if (ended)
    {
        require(!text.starts_with('"') ? !isNumber : size < 2 || text.back() != '"', "the process ended");
        return 0;
    }
    require(Tweaks::Tweak(printed).toString() == printed, "the printed form is read as something else");
    if (text.starts_with('"'))
    {
        require(printed == text || printed == "1" || printed == "0", "quoted");
        return 0;
    }
    if (isNumber)
    {
        require(printed == std::to_string(value), "number");
    }
    else
    {
        require(printed == "1" || printed == "0", "boolean word");
    }
    return 0;
}
