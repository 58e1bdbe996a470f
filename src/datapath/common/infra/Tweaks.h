#pragma once

// The process-wide table of tweaks: named configuration values that are read from text files when the table is made,
// and completed by defaults that code registers. Each tweak that code reads has a description in KnownTweaks.h.
//
//     const std::int32_t maxFiles = Tweaks::instance().value(GEN_FILE_LOGGER_MAX_FILES);
//
// docs/configuration.md describes the files. Names begin with "t_" and compare without regard to ASCII case.
// Reading a tweak that is not set gives its default and does not store it. The process ends when a tweak without a
// default is not set, when a value is of another kind or out of range, and when a value text cannot be read; standard
// error then tells what is wrong.
//
// Any thread may call any operation, except those that are only for the construction of the table. Reading a tweak
// takes no lock, unless the process is about to end because of it. Lines are logged under the table's lock. A log
// client must therefore not change tweaks; it should not read them either, but a thread that reads a tweak while it
// logs such a line does not wait for its own lock. Code that reads a tweak often reads a member of DynamicTweaks
// instead.

#include "datapath/common/infra/KnownTweaks.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/TweakTable.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One line of a tweak file; its parts have no blanks around them.
struct TweakLine
{
    std::string name;
    std::string valueText;
    std::string comment;
};

/// Decides what happens to a line without "=", and to a name that more than one line has in the same spelling.
enum class TweakFileKind : std::uint8_t
{
    Consistent, ///< either ends the process
    Extension   ///< either is left out
};

class Tweaks
{
public:
    /// The value of one tweak: a signed 64-bit integer (1 and 0 for boolean words) or a string.
    class Tweak
    {
    public:
        /// Reads a value text: a boolean word, a decimal or "0x" hexadecimal number, or a string between double
        /// quotes. Anything else ends the process; standard error then names the tweak and the file.
        explicit Tweak(std::string_view valueText, std::string_view name = {}, std::string_view fileName = {});

        [[nodiscard]] bool isInt() const { return m_isInt; }

        /// Ends the process if the value is a string.
        [[nodiscard]] std::int64_t longVal() const;

        /// The integer in decimal, or the string between double quotes.
        [[nodiscard]] std::string toString() const;

    private:
        friend class Tweaks;

        explicit Tweak(const TweakTable::Entry& entry);

        std::string m_stringVal; // empty for an integer
        std::int64_t m_intVal = 0;
        bool m_isInt = false;
    };

    /// The table of the process. It is made on first use from the files in the working folder and never destroyed.
    [[nodiscard]] static Tweaks& instance();

    /// What the table holds for a known tweak, or its default. This is how code reads a tweak.
    [[nodiscard]] std::int32_t value(const IntTweak& tweak) const { return intVal(tweak.name, tweak.defaultVal); }
    [[nodiscard]] std::uint32_t value(const UintTweak& tweak) const { return uintVal(tweak.name, tweak.defaultVal); }
    [[nodiscard]] bool value(const BoolTweak& tweak) const { return boolVal(tweak.name, tweak.defaultVal); }

    /// Sets a tweak and the spelling of its name, or removes it if the value text is empty. Returns the earlier value
    /// as Tweak::toString gives it, or an empty text if there was none.
    std::string update(const std::string& name, const std::string& valueText) TAVRO_EXCLUDES(m_mutex);

    /// Sets a tweak that is not set. Returns whether it did.
    bool setDefaultValIfNotSet(const std::string& name, const std::string& valueText) TAVRO_EXCLUDES(m_mutex);

    /// The value, or the default if the tweak is not set; without either the process ends.
    [[nodiscard]] std::int64_t longVal(std::string_view name, std::optional<std::int64_t> defaultVal = {}) const
        TAVRO_EXCLUDES(m_mutex);

    /// As longVal; the process also ends if the value is out of range, as -2147483648 is.
    [[nodiscard]] std::int32_t intVal(std::string_view name, std::optional<std::int32_t> defaultVal = {}) const;

    /// As longVal; the process also ends if the value is out of range.
    [[nodiscard]] std::uint32_t uintVal(std::string_view name, std::optional<std::uint32_t> defaultVal = {}) const;

    /// As longVal; returns whether the value is not 0.
    [[nodiscard]] bool boolVal(std::string_view name, std::optional<bool> defaultVal = {}) const;

    /// Logs every tweak at level Control, in the order of the names.
    void print() const TAVRO_EXCLUDES(m_mutex);

    /// Calls the visitor for every tweak, in the order of the names, under the table's lock.
    void visit(const std::function<void(std::string_view name, const Tweak& tweak)>& visitor) const
        TAVRO_EXCLUDES(m_mutex);

    /// A file of tweaks, with its path from the working folder. That of the consistent file has no copy's number.
    struct File
    {
        std::string path;
        TweakFileKind kind;
    };

    /// The files in the order in which they are read; a later one overrides an earlier one.
    [[nodiscard]] static std::vector<File> files();

    /// The lines of a text that set or remove a tweak. The kind decides what happens to a line without "=".
    [[nodiscard]] static std::deque<TweakLine> getTweaksFromStream(std::istream& text, TweakFileKind kind);

    /// Only for the construction of the table; a later call ends the process. Each applies a text as its kind of file
    /// requires and returns the lines that have a "=". Lines with a repeated name are reported and not applied, and
    /// their comment then says so.
    std::deque<TweakLine> applyConsistentText(std::istream& text);
    std::deque<TweakLine> applyExtensionText(std::istream& text);

    /// Only for the construction of the table: applies an extension file. Returns whether it could be opened.
    bool updateFromFile(const std::string& path);

    /// Unlocks the table if this thread holds its lock, as it does inside a log client that takes a line of the table.
    /// Only for a thread that never returns from there, so that others can go on.
    void unlockForGood() const TAVRO_EXCLUDES(m_mutex);

protected:
    /// Reads the files. Benchmarks and fuzz targets make tables of their own; a change of such a table refreshes
    /// DynamicTweaks from the table of the process.
    Tweaks();
    ~Tweaks() = default;

    /// A table that reads no files. Its construction does not end: texts can be applied at any time, and a change
    /// refreshes nothing.
    struct WithoutFiles
    {
    };
    explicit Tweaks(WithoutFiles /*tag*/) {}

private:
    void loadFromFiles();
    std::deque<TweakLine> applyText(std::istream& text, TweakFileKind kind);
    void reserve(std::size_t more) TAVRO_EXCLUDES(m_mutex);
    void notifyDynamicTweaks() const TAVRO_EXCLUDES(m_mutex);
    void set(const std::string& name, const Tweak& tweak) TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] std::int64_t findLong(std::string_view name, std::optional<std::int64_t> defaultVal) const
        TAVRO_REQUIRES(m_mutex);

    StlMemShiledContainer<TweakTable> m_tweaks TAVRO_GUARDED_BY(m_mutex){"Tweaks"};
    const TweakTable& m_readable = *m_tweaks; // for reading without the lock
    mutable OwnedMutex m_mutex;               // guards the table; the locks of log clients are taken inside it
    // Written only while the table is made, when no other thread knows it.
    bool m_isInitialized = false;
    std::string m_fileName; // the file that is being read, so that explanations can name it
};

/// Called after each change of the process's table. DynamicTweaks.cpp defines it: the dynamic tweaks read the table,
/// and the table knows only that they do.
void refreshDynamicTweaks();
