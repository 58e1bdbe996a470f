// Loads a consistent file and compares the result with a plain implementation. The input is the content of the two
// copies and of their signatures, separated by zero bytes; "-" stands for a file that does not exist.

#include "datapath/common/infra/ConsistentFile.h"
#include "fuzz/Support.h"

#include <cstdlib>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size)
{
    std::string input(data, size);
    files.clear();
    for (const char* const name : {"f.0", "f.0.sig", "f.1", "f.1.sig"})
    {
        const std::size_t end = std::min(input.find('\0'), input.size());
        if (const std::string content = input.substr(0, end); content != "-")
        {
            files[name] = content;
        }
        input.erase(0, end + 1);
    }

    std::uint64_t bestSequence = 0;
    std::string expected;
    for (const std::string name : {"f.0", "f.1"})
    {
        if (!files.contains(name) || !files.contains(name + ".sig"))
        {
            continue;
        }
        std::vector<std::string> signature = linesOf(files[name + ".sig"]);
        signature.resize(2);
        const std::uint64_t sequence = std::strtoull(signature[0].c_str(), nullptr, 10);
        std::string text;
        for (const std::string& line : linesOf(files[name]))
        {
            text += line + "\n";
        }
        const auto crc = static_cast<std::uint32_t>(std::strtoull(signature[1].c_str(), nullptr, 10));
        if (sequence >= bestSequence && crc == crc32Of(text))
        {
            bestSequence = sequence;
            expected = text;
        }
    }

    std::ostringstream loaded;
    const RcStatus status = ConsistentFile("f").load(loaded);
    require(status == (bestSequence != 0 || files.empty() ? RC_OK : RC_ERROR), "status");
    require(loaded.str() == (bestSequence == 0 ? "" : expected), "text");
    return 0;
}
