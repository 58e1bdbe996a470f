// Logs at full speed into files in the working folder until it is killed, so that a test can see what a killed program
// leaves. Each line is its number and a filling:
//
//     00000017 xxxx... end
//
// After each flush it prints the number of lines that the system has.
//
//     flushed_log > promises.txt

#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/MemShield.h"

#include <cstdint>
#include <cstdio>
#include <string>

int main()
{
    constexpr std::uint64_t LINES_PER_FLUSH = 997;
    const std::string filling = " " + std::string(1'000, 'x') + " end\n";
    MemShield::setEnabled(false);
    FileLoggerClient client("flushed.log", 3, "");
    for (std::uint64_t lines = 0;; ++lines)
    {
        if (lines % LINES_PER_FLUSH == 0)
        {
            client.flush();
            std::printf("%llu\n", static_cast<unsigned long long>(lines));
            std::fflush(stdout);
        }
        std::string number = std::to_string(lines);
        client.log(number.insert(0, 8 - number.size(), '0') + filling);
    }
}
