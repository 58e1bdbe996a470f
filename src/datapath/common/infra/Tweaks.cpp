#include "datapath/common/infra/Tweaks.h"

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/base/NumberText.h"
#include "datapath/common/infra/base/Singleton.h"
#include "datapath/common/infra/windows/Directories.h"
#include "platform/Atomic.h"
#include "platform/Text.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <limits>
#include <sstream>
#include <vector>

namespace
{

constexpr std::uint32_t NUMBER_QUOTES = 32;
constexpr std::uint32_t NUMBER_NOT_A_NUMBER = 71;
constexpr std::uint32_t NUMBER_VALUE_IS_NOT_INT = 123;
constexpr std::uint32_t NUMBER_NO_VALUE = 497;
constexpr std::uint32_t NUMBER_INT_TOO_LARGE = 524;
constexpr std::uint32_t NUMBER_INT_TOO_SMALL = 525;
constexpr std::uint32_t NUMBER_UINT_NEGATIVE = 535;
constexpr std::uint32_t NUMBER_UINT_TOO_LARGE = 536;

constexpr char QUOTE = '"';
constexpr std::array<std::string_view, 5> TRUE_WORDS = {"true", "yes", "on", "enabled", "ok"};
constexpr std::array<std::string_view, 4> FALSE_WORDS = {"false", "no", "off", "disabled"};

constinit platform::Atomic<Tweaks*> theTweaks = nullptr;

bool isOneOf(std::string_view text, const auto& words)
{
    return std::ranges::any_of(words, [=](std::string_view word) { return CaseInsensitiveEqual()(text, word); });
}

std::optional<std::int64_t> booleanOf(std::string_view text)
{
    if (isOneOf(text, TRUE_WORDS))
    {
        return 1;
    }
    return isOneOf(text, FALSE_WORDS) ? std::optional<std::int64_t>(0) : std::nullopt;
}

std::optional<std::int64_t> numberOf(std::string_view text)
{
    const std::string_view digits = withoutHexPrefix(text);
    return extractNumber(digits, digits.size() == text.size() ? 10 : 16);
}

/// Tells the user on standard error what is wrong, because there may be no log yet.
void explain(std::string_view name, std::string_view problem)
{
    std::cerr << "tweak \"" << name << "\" " << problem << std::endl;
}

} // namespace

Tweaks::Tweak::Tweak(std::string_view valueText, std::string_view name, std::string_view fileName)
{
    const MethodText method = TAVRO_METHOD;
    const auto fail = [&](std::uint32_t number, const char* condition, const char* problem) {
        std::ostringstream text;
        text << "has the value '" << valueText << "', which " << problem;
        if (!fileName.empty())
        {
            text << " (in " << fileName << ")";
        }
        explain(name, text.str());
        failAssertion(LoggerId::NON, method, SourcePlace::numbered(number), condition);
    };
    const bool isQuoted = valueText.starts_with(QUOTE);
    if (isQuoted && (valueText.size() < 2 || !valueText.ends_with(QUOTE)))
    {
        fail(NUMBER_QUOTES, "val.length() > 1 && (val[val.length() -1] == '\"')", "has no closing double quote");
    }
    const std::string_view text = isQuoted ? valueText.substr(1, valueText.size() - 2) : valueText;
    std::optional<std::int64_t> number = booleanOf(text);
    if (!number && isQuoted)
    {
        m_stringVal = text;
        return;
    }
    if (!number)
    {
        number = numberOf(text);
    }
    if (!number)
    {
        fail(NUMBER_NOT_A_NUMBER, "false", "is neither a boolean word nor a 64-bit number nor between double quotes");
    }
    m_intVal = *number;
    m_isInt = true;
}

Tweaks::Tweak::Tweak(const TweakTable::Entry& entry)
    : m_stringVal(entry.text()), m_intVal(entry.read().number), m_isInt(entry.read().kind == TweakTable::Kind::Number)
{
}

std::int64_t Tweaks::Tweak::longVal() const
{
    if (!m_isInt)
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "value is not int" << std::endl;
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_VALUE_IS_NOT_INT), "false");
    }
    return m_intVal;
}

std::string Tweaks::Tweak::toString() const { return m_isInt ? std::to_string(m_intVal) : QUOTE + m_stringVal + QUOTE; }

Tweaks& Tweaks::instance()
{
    return createOnce(theTweaks, creationLock<Tweaks>, [] { return new Tweaks; });
}

Tweaks::Tweaks()
{
    Directories::ensureExists(std::string("test_appdata") + platform::PATH_SEPARATOR);
    loadFromFiles();
    m_isInitialized = true;
}

void Tweaks::reserve(std::size_t more)
{
    const MutexGuard guard(m_mutex);
    m_tweaks.change([=](auto& tweaks) { tweaks.reserve(more); });
}

std::string Tweaks::update(const std::string& name, const std::string& valueText)
{
    std::string replaced;
    {
        const MutexGuard guard(m_mutex);
        if (const TweakTable::Entry* const found = m_tweaks->find(name); found != nullptr)
        {
            replaced = Tweak(*found).toString();
        }
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
            << "Updating tweak:  name=" << name << "  val=" << valueText << "  ret=" << replaced << " " << std::endl;
        if (valueText.empty())
        {
            m_tweaks.change([&](auto& tweaks) { tweaks.remove(name); });
        }
        else
        {
            set(name, Tweak(valueText, name, m_fileName));
        }
    }
    notifyDynamicTweaks();
    return replaced;
}

bool Tweaks::setDefaultValIfNotSet(const std::string& name, const std::string& valueText)
{
    {
        const MutexGuard guard(m_mutex);
        if (m_tweaks->find(name) != nullptr)
        {
            return false;
        }
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
            << "default tweak added:  name=" << name << "  val=" << valueText << "  ret= " << std::endl;
        set(name, Tweak(valueText, name, m_fileName));
    }
    notifyDynamicTweaks();
    return true;
}

void Tweaks::set(const std::string& name, const Tweak& tweak)
{
    m_tweaks.change([&](TweakTable& tweaks) {
        if (tweak.isInt())
        {
            tweaks.setNumber(name, tweak.longVal());
        }
        else
        {
            tweaks.setText(name, tweak.m_stringVal);
        }
    });
}

void Tweaks::unlockForGood() const
{
    if (m_mutex.isMine())
    {
        m_mutex.assertLocked();
        m_mutex.unlock();
    }
}

void Tweaks::notifyDynamicTweaks() const
{
    if (m_isInitialized)
    {
        refreshDynamicTweaks();
    }
}

std::int64_t Tweaks::longVal(std::string_view name, std::optional<std::int64_t> defaultVal) const
{
    const auto [kind, number] = m_readable.read(name);
    if (kind == TweakTable::Kind::Number)
    {
        return number;
    }
    if (kind == TweakTable::Kind::Absent && defaultVal)
    {
        return *defaultVal;
    }
    if (m_mutex.isMine())
    {
        m_mutex.assertLocked();
        return findLong(name, defaultVal);
    }
    const MutexGuard guard(m_mutex);
    return findLong(name, defaultVal);
}

std::int64_t Tweaks::findLong(std::string_view name, std::optional<std::int64_t> defaultVal) const
{
    if (const TweakTable::Entry* const found = m_tweaks->find(name); found != nullptr)
    {
        const Tweak tweak(*found);
        if (!tweak.isInt())
        {
            explain(name, "must be an integer and is " + tweak.toString());
        }
        return tweak.longVal();
    }
    if (!defaultVal)
    {
        static constexpr MethodText METHOD = MethodText::of("Tweaks::longVal");
        explain(name, "is needed and not set");
        LogItem(LoggerId::NON, LogLevel::Error, METHOD) << "tweak \"" << name << "\" not found" << std::endl;
        failAssertion(LoggerId::NON, METHOD, SourcePlace::numbered(NUMBER_NO_VALUE), "false");
    }
    return *defaultVal;
}

std::int32_t Tweaks::intVal(std::string_view name, std::optional<std::int32_t> defaultVal) const
{
    constexpr std::int64_t LARGEST = std::numeric_limits<std::int32_t>::max();
    const std::int64_t value = longVal(name, defaultVal);
    if (value > LARGEST)
    {
        explain(name, "is " + std::to_string(value) + " and must be at most 2147483647");
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_INT_TOO_LARGE),
                      "ival <= ((u32)-1) / 2");
    }
    if (value < -LARGEST)
    {
        explain(name, "is " + std::to_string(value) + " and must be at least -2147483647");
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_INT_TOO_SMALL),
                      "-1 * ival <= ((u32)-1) / 2");
    }
    return static_cast<std::int32_t>(value);
}

std::uint32_t Tweaks::uintVal(std::string_view name, std::optional<std::uint32_t> defaultVal) const
{
    const std::int64_t value = longVal(name, defaultVal);
    if (value < 0)
    {
        explain(name, "is " + std::to_string(value) + " and must not be negative");
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_UINT_NEGATIVE), "ival >= 0");
    }
    if (value > std::numeric_limits<std::uint32_t>::max())
    {
        explain(name, "is " + std::to_string(value) + " and must be at most 4294967295");
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_UINT_TOO_LARGE), "ival <= ((u32)-1)");
    }
    return static_cast<std::uint32_t>(value);
}

bool Tweaks::boolVal(std::string_view name, std::optional<bool> defaultVal) const
{
    return longVal(name, defaultVal) != 0;
}

void Tweaks::visit(const std::function<void(std::string_view name, const Tweak& tweak)>& visitor) const
{
    const MutexGuard guard(m_mutex);
    std::vector<const TweakTable::Entry*> listed = m_tweaks->entries();
    std::ranges::sort(listed, CaseInsensitiveLess(), &TweakTable::Entry::name);
    for (const TweakTable::Entry* const entry : listed)
    {
        visitor(entry->name(), Tweak(*entry));
    }
}

void Tweaks::print() const
{
    bool isEmpty = true;
    visit([&](std::string_view name, const Tweak& tweak) {
        isEmpty = false;
        LogItem(LoggerId::NON, LogLevel::Control, "Tweaks::print") << name << "=" << tweak.toString() << std::endl;
    });
    if (isEmpty)
    {
        LogItem(LoggerId::NON, LogLevel::Control, TAVRO_METHOD) << "tweaks are empty" << std::endl;
    }
}
