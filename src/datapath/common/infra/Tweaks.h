#pragma once

// The process-wide table of tweaks: named configuration values, read from text files when the table is
// made and completed by defaults that code registers.
//
//     const std::int32_t maxFiles = Tweaks::instance().intVal("t_GenFileLoggerMaxFiles", 1000);
//
// docs/configuration.md describes the files. Names begin with "t_" and compare without regard to ASCII
// case. A getter never stores its default. A value that is missing without a default, of another kind or
// out of range ends the process, and so does a value text that cannot be read; what is wrong with it is
// told on standard error.
//
// Any thread may call what is not said to be for the making of the table. Lines are logged under the table's
// lock, so log clients must not change tweaks, and should not read them: a thread that does so while it logs
// such a line is let through. Code that reads a tweak often reads a member of DynamicTweaks instead.

#include "datapath/common/infra/AsciiCase.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

/// One line of a tweak file, trimmed.
struct TweakLine
{
    std::string name;
    std::string valueText;
    std::string comment;
};

class Tweaks
{
public:
    /// The value of one tweak: a signed 64-bit integer (1 and 0 for boolean words) or a string.
    class Tweak
    {
    public:
        /// From a value text: a boolean word, a decimal or "0x" hexadecimal number, or a string between
        /// double quotes. Anything else ends the process, telling whose value it is and from which file.
        explicit Tweak(std::string_view valueText, std::string_view name = {}, std::string_view fileName = {});

        [[nodiscard]] bool isInt() const { return m_isInt; }

        /// A string ends the process.
        [[nodiscard]] std::int64_t longVal() const;

        /// The integer in decimal, or the string between double quotes.
        [[nodiscard]] std::string toString() const;

    private:
        std::string m_stringVal; // empty for an integer
        std::int64_t m_intVal = 0;
        bool m_isInt = false;
    };

    /// Made on first use, from the files in the working folder, and never destroyed.
    [[nodiscard]] static Tweaks& instance();

    /// Replaces a tweak, its spelling too, or removes it if the value text is empty. Returns what toString
    /// gave for the value before, empty if there was none.
    std::string update(const std::string& name, const std::string& valueText) EXCLUDES(m_mutex);

    /// Returns whether the tweak was missing and has been added.
    bool setDefaultValIfNotSet(const std::string& name, const std::string& valueText) EXCLUDES(m_mutex);

    /// The value, or the default if the tweak is missing. Whatever is neither ends the process, and so does
    /// what the narrower types below do not hold.
    [[nodiscard]] std::int64_t longVal(std::string_view name, std::optional<std::int64_t> defaultVal = {}) const
        EXCLUDES(m_mutex);

    /// -2147483648 is out of range.
    [[nodiscard]] std::int32_t intVal(std::string_view name, std::optional<std::int32_t> defaultVal = {}) const;

    [[nodiscard]] std::uint32_t uintVal(std::string_view name, std::optional<std::uint32_t> defaultVal = {}) const;

    /// Whether the value is not 0.
    [[nodiscard]] bool boolVal(std::string_view name, std::optional<bool> defaultVal = {}) const;

    /// Logs every tweak, in the order of the names, at level Control.
    void print() const EXCLUDES(m_mutex);

    /// The lines of a text that define something. A line without "=" ends the process if strict and is left
    /// out if not.
    [[nodiscard]] static std::deque<TweakLine> getTweaksFromStream(std::istream& stream, bool strict);

    /// Applies a text, while the table is being made; later it ends the process. A name that the text
    /// defines more than once is reported for each of its lines, which are not applied, and ends the process
    /// if strict. The lines are left to the caller, those not applied with a comment that says so.
    void update(std::istream& stream, std::deque<TweakLine>& lines, bool strict);
    void update(std::istream& stream, bool strict);

    /// Applies a file, not strictly, while the table is being made. Returns whether it could be opened.
    bool updateFromFile(const std::string& path);

    /// For a thread that never goes on: gives up the table, if a log client is called by it under the table's lock.
    void unlockForGood() const EXCLUDES(m_mutex);

protected:
    /// Reads the files. A second table may be made, by tests; its changes refresh DynamicTweaks from the first.
    Tweaks();
    ~Tweaks() = default;

private:
    // By hash: files of 100,000 lines load in linear time. Only the listing needs the order of the names.
    using Map = std::unordered_map<std::string, Tweak, CaseInsensitiveHash, CaseInsensitiveEqual>;

    void loadFromFiles();
    void reserve(std::size_t more) EXCLUDES(m_mutex);
    void notifyDynamicTweaks() const EXCLUDES(m_mutex);
    [[nodiscard]] std::int64_t findLong(std::string_view name, std::optional<std::int64_t> defaultVal) const
        REQUIRES(m_mutex);

    StlMemShiledContainer<Map> m_tweaks GUARDED_BY(m_mutex){"Tweaks"};
    // Guards the table. What log clients take is taken inside it.
    mutable OwnedMutex m_mutex;
    bool m_isInitialized = false;
    std::string m_fileName; // that is being read while the table is made, for people
};
