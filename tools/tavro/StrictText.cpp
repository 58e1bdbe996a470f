#include "tools/tavro/StrictText.h"

#include "datapath/common/infra/Tweaks.h"
#include "tools/tavro/CaughtEnd.h"

#include <algorithm>
#include <deque>
#include <sstream>
#include <unordered_map>
#include <utility>

namespace
{

using Tool::TextProblem;

constexpr std::size_t LONGEST_LINE = 511; // as TextLines takes it
constexpr char END_OF_TEXT_ON_WINDOWS = 0x1A;

/// A table that reads no files.
class Table : public Tweaks
{
public:
    Table() : Tweaks(WithoutFiles()) {}
};

bool hasByteOrderMark(std::string_view text)
{
    return text.starts_with("\xEF\xBB\xBF") || text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF");
}

class Check
{
public:
    explicit Check(const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines)
        {
            ++m_line;
            checkBytes(line);
            if (line.size() <= LONGEST_LINE)
            {
                checkMeaning(line);
            }
        }
        if (m_problems.empty())
        {
            checkWhole(lines);
        }
    }

    [[nodiscard]] std::vector<TextProblem> takeProblems() { return std::move(m_problems); }

private:
    void report(std::string text) { m_problems.push_back({m_line, std::move(text)}); }

    void checkBytes(const std::string& line)
    {
        if (m_line == 1 && hasByteOrderMark(line))
        {
            report("the text begins with a byte order mark, which would become part of the first name");
        }
        if (line.find('\0') != std::string::npos)
        {
            report("the line has a zero byte");
        }
        if (line.find(END_OF_TEXT_ON_WINDOWS) != std::string::npos)
        {
            report("the line has a byte 0x1A (Ctrl-Z), which ends the text on Windows");
        }
        if (line.size() > LONGEST_LINE)
        {
            report("the line has " + std::to_string(line.size()) + " characters; one of more than " +
                   std::to_string(LONGEST_LINE) + " ends the text");
        }
    }

    void checkMeaning(const std::string& line)
    {
        std::istringstream stream(line);
        std::deque<TweakLine> parsed;
        const auto parse = [&] { parsed = Tweaks::getTweaksFromStream(stream, TweakFileKind::Consistent); };
        if (const auto end = Tool::endOf(parse))
        {
            report(end->text());
        }
        for (const TweakLine& tweak : parsed)
        {
            checkTweak(tweak);
        }
    }

    void checkTweak(const TweakLine& tweak)
    {
        const auto [first, isNew] = m_lineOfName.emplace(tweak.name, m_line);
        if (!isNew)
        {
            report("multiple definition for tweak \"" + tweak.name + "\", which line " + std::to_string(first->second) +
                   " defines, too");
        }
        const auto readValue = [&] { static_cast<void>(Tweaks::Tweak(tweak.valueText, tweak.name)); };
        if (tweak.valueText.empty()) // removes what is set
        {
            return;
        }
        if (const auto end = Tool::endOf(readValue))
        {
            report(end->text());
        }
    }

    /// Reads the text as the program does, in case that its rules know more than the checks of single lines.
    void checkWhole(const std::vector<std::string>& lines)
    {
        std::stringstream text;
        for (const std::string& line : lines)
        {
            text << line << '\n';
        }
        m_line = 0;
        if (const auto end = Tool::endOf([&] { Table().applyConsistentText(text); }))
        {
            report(end->text());
        }
    }

    std::vector<TextProblem> m_problems;
    std::unordered_map<std::string, std::uint32_t> m_lineOfName;
    std::uint32_t m_line = 0; // that is being checked
};

} // namespace

std::vector<std::string> Tool::linesOf(std::string_view bytes)
{
    std::vector<std::string> lines;
    while (!bytes.empty())
    {
        const std::size_t end = std::min(bytes.find('\n'), bytes.size());
        std::string_view line = bytes.substr(0, end);
        while (line.ends_with('\r'))
        {
            line.remove_suffix(1);
        }
        lines.emplace_back(line);
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
    return lines;
}

std::vector<Tool::TextProblem> Tool::checkStrictText(const std::vector<std::string>& lines)
{
    return Check(lines).takeProblems();
}
