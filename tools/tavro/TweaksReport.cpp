#include "tools/tavro/TweaksReport.h"

#include "datapath/common/infra/base/AsciiCase.h"
#include "platform/Text.h"
#include "tools/tavro/Command.h"

#include <algorithm>

namespace
{

using namespace Tool;

std::string inFolder(const std::string& folder, const std::string& file)
{
    if (folder.empty())
    {
        return file;
    }
    return folder.ends_with('/') || folder.ends_with(platform::PATH_SEPARATOR)
               ? folder + file
               : folder + platform::PATH_SEPARATOR + file;
}

const char* nameOf(Severity severity) { return severity == Severity::Error ? "error" : "warning"; }

/// What is shown of one tweak.
struct Row
{
    std::string name;
    std::string value;
    std::string origin; ///< a place in a file, "registered" or "default"
    std::string type;   ///< empty for a tweak that is not known
    std::string unit;
    std::string effect;
};

template <class T> Row rowOf(const KnownTweak<T>& tweak, const Examination& examination)
{
    Row row = {.name = std::string(tweak.name),
               .value = tweak.defaultVal ? std::to_string(*tweak.defaultVal) : "none",
               .origin = "default",
               .type = std::string(tweak.typeName()),
               .unit = std::string(tweak.unit),
               .effect = std::string(tweak.effect)};
    if (const auto found = examination.settings.find(row.name); found != examination.settings.end())
    {
        row.value = found->second.value;
        row.origin = found->second.place ? found->second.place->text() : "registered";
    }
    return row;
}

/// All rows: the known tweaks in the order of the documentation, then the others that are set.
std::vector<Row> allRows(const Examination& examination)
{
    std::vector<Row> rows;
    forEachKnownTweak([&](const auto& tweak) { rows.push_back(rowOf(tweak, examination)); });
    for (const auto& entry : examination.settings)
    {
        const Setting& setting = entry.second;
        if (std::ranges::none_of(rows, [&](const Row& row) { return CaseInsensitiveEqual()(row.name, setting.name); }))
        {
            rows.push_back({.name = setting.name,
                            .value = setting.value,
                            .origin = setting.place ? setting.place->text() : "registered",
                            .type = "",
                            .unit = "",
                            .effect = "unknown to this program"});
        }
    }
    return rows;
}

void writeJson(std::ostream& out, const std::vector<Row>& rows)
{
    const char* separator = "[";
    for (const Row& row : rows)
    {
        out << separator << "{\"name\":" << jsonText(row.name) << ",\"value\":" << jsonText(row.value)
            << ",\"origin\":" << jsonText(row.origin) << ",\"type\":" << jsonText(row.type)
            << ",\"unit\":" << jsonText(row.unit) << ",\"effect\":" << jsonText(row.effect) << "}";
        separator = ",\n ";
    }
    out << (rows.empty() ? "[]\n" : "]\n");
}

void writeText(std::ostream& out, const std::vector<Row>& rows)
{
    for (const Row& row : rows)
    {
        out << visibleText(row.name) << " = " << visibleText(row.value) << (row.unit.empty() ? "" : " " + row.unit)
            << "\n    " << row.origin << (row.type.empty() ? "" : "; " + row.type) << "; " << row.effect << '\n';
    }
}

} // namespace

bool Tool::writeFindings(std::ostream& out, const std::vector<Finding>& findings, const FindingsForm& form)
{
    bool isAny = false;
    for (const Finding& finding : findings)
    {
        if (form.hasOnlyErrors && finding.severity != Severity::Error)
        {
            continue;
        }
        const FilePlace place = {inFolder(form.folder, finding.place.file), finding.place.line};
        if (form.isJson)
        {
            out << (isAny ? ",\n " : "[") << "{\"file\":" << jsonText(place.file) << ",\"line\":" << place.line
                << ",\"severity\":" << jsonText(nameOf(finding.severity)) << ",\"text\":" << jsonText(finding.text)
                << "}";
        }
        else
        {
            out << visibleText(place.text()) << ": " << nameOf(finding.severity) << ": " << visibleText(finding.text)
                << '\n';
        }
        isAny = true;
    }
    if (form.isJson)
    {
        out << (isAny ? "]\n" : "[]\n");
    }
    return isAny;
}

std::vector<std::string> Tool::writeSettings(std::ostream& out, const Examination& examination,
                                             const SettingsForm& form)
{
    std::vector<Row> rows = allRows(examination);
    std::vector<std::string> missing;
    for (const std::string& name : form.names)
    {
        if (std::ranges::none_of(rows, [&](const Row& row) { return CaseInsensitiveEqual()(row.name, name); }))
        {
            missing.push_back(name);
        }
    }
    std::erase_if(rows, [&](const Row& row) {
        if (form.names.empty())
        {
            return !form.hasAll && row.origin == "default";
        }
        return std::ranges::none_of(form.names,
                                    [&](const std::string& name) { return CaseInsensitiveEqual()(row.name, name); });
    });
    form.isJson ? writeJson(out, rows) : writeText(out, rows);
    return missing;
}
