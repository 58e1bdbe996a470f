#include "fuzz/Support.h"

#include "datapath/common/infra/Log.h"
#include "platform/Files.h"
#include "platform/Process.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

std::map<std::string, std::string> files;

namespace
{

using namespace platform;

struct ProcessEnded
{
};

struct OpenFile
{
    std::string_view rest;
};

constexpr std::array<std::string_view, 5> ENDINGS = {
    ",Tweaks::Tweak,Tweak,Assertion (false) failed datapath/common/infra/Tweaks.cpp 71\n",
    ",Tweaks::Tweak,Tweak,Assertion (val.length() > 1 && (val[val.length() -1] == '\"')) failed "
    "datapath/common/infra/Tweaks.cpp 32\n",
    ",Tweaks,getTweaksFromStream,Assertion (false) failed datapath/common/infra/Tweaks.cpp 602\n",
    ",Tweaks,update,Assertion (!strict) failed datapath/common/infra/Tweaks.cpp 244\n",
    ",Tweaks,loadFromFiles, datapath/common/infra/Tweaks.cpp 160: false failed. Could not load consistent tweak "
    "information\n",
};

class LastLineClient : public LoggerClient
{
public:
    void log(const std::string& line) override { m_lastLine = line; }
    std::string m_lastLine;
};

LastLineClient& lastLineClient()
{
    static auto& client = *new LastLineClient;
    return client;
}

[[maybe_unused]] const bool isSetUp = [] {
    Logger::instance().registerClient(&lastLineClient(), Logger::ALL_LEVELS);
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
    processCalls.endProcess.current = [] { throw ProcessEnded(); };
    fileCalls.createFolderErrno.current = [](const char*) { return 0; };
    fileCalls.openFile.current = [](const char* path, OpenMode) {
        const auto found = files.find(path);
        return found == files.end()
                   ? OpenedFile{FileHandle::Invalid, ErrorNumber::FileNotFound}
                   : OpenedFile{FileHandle{reinterpret_cast<std::intptr_t>(new OpenFile{found->second})},
                                ErrorNumber::Success};
    };
    fileCalls.readFile.current = [](FileHandle file, void* buffer, std::size_t size) {
        std::string_view& rest = reinterpret_cast<OpenFile*>(file)->rest;
        // Reads are short, so that some end within a line end.
        const std::size_t bytes = std::min({size, rest.size(), rest.size() % 7 + 1});
        std::memcpy(buffer, rest.data(), bytes);
        rest.remove_prefix(bytes);
        return Transfer{bytes, ErrorNumber::Success};
    };
    fileCalls.closeFile.current = [](FileHandle file) {
        delete reinterpret_cast<OpenFile*>(file);
        return ErrorNumber::Success;
    };
    return true;
}();

} // namespace

bool endsProcess(const std::function<void()>& work)
{
    try
    {
        work();
        return false;
    }
    catch (const ProcessEnded&)
    {
        const std::string& last = lastLineClient().m_lastLine;
        require(std::ranges::any_of(ENDINGS, [&](std::string_view ending) { return last.ends_with(ending); }),
                last.c_str());
        return true;
    }
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::string line;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
        {
            continue;
        }
        if (text[i] == '\n')
        {
            lines.push_back(line);
            line.clear();
        }
        else if (line.size() == 511)
        {
            return lines;
        }
        else
        {
            line += text[i];
        }
    }
    if (!line.empty())
    {
        lines.push_back(line);
    }
    return lines;
}

std::uint32_t crc32Of(std::string_view bytes)
{
    std::uint32_t state = ~0U;
    for (const char byte : bytes)
    {
        for (unsigned bit = 0; bit < 8; ++bit)
        {
            const unsigned isOdd = (state ^ static_cast<unsigned char>(byte) >> bit) & 1U;
            state = state >> 1U ^ isOdd * 0xEDB8'8320U;
        }
    }
    return ~state;
}

void require(bool condition, const char* what)
{
    if (!condition)
    {
        std::fprintf(stderr, "wrong: %s\n", what);
        std::abort();
    }
}
