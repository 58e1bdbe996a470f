#include "tools/tavro/TweakCatalogueText.h"

#include "datapath/common/infra/KnownTweaks.h"
#include "tools/tavro/Command.h"

#include <algorithm>
#include <string>
#include <vector>

namespace
{

/// The texts of one tweak.
struct Row
{
    std::string name;
    std::string type;
    bool isDynamic;
    std::string defaultText; ///< "none" without one
    std::string registered;  ///< empty without one
    std::string unit;
    std::string effect;

    [[nodiscard]] std::string typeText() const { return type + (isDynamic ? ", dynamic" : ""); }
    [[nodiscard]] std::string defaultsText() const
    {
        return defaultText + (registered.empty() ? "" : "; registered " + registered);
    }
};

std::vector<Row> rows()
{
    std::vector<Row> all;
    forEachKnownTweak([&](const auto& tweak) {
        all.push_back(
            {.name = std::string(tweak.name),
             .type = std::string(tweak.typeName()),
             .isDynamic = tweak.reader == TweakReader::DynamicTweaks || tweak.reader == TweakReader::DerivedSwitches,
             .defaultText = tweak.defaultVal ? std::to_string(*tweak.defaultVal) : "none",
             .registered = tweak.registeredVal ? std::to_string(*tweak.registeredVal) : "",
             .unit = std::string(tweak.unit),
             .effect = std::string(tweak.effect)});
    });
    return all;
}

void writeText(std::ostream& out, const std::vector<Row>& all)
{
    std::size_t nameWidth = 0;
    std::size_t typeWidth = 0;
    std::size_t defaultsWidth = 0;
    for (const Row& row : all)
    {
        nameWidth = std::max(nameWidth, row.name.size());
        typeWidth = std::max(typeWidth, row.typeText().size());
        defaultsWidth = std::max(defaultsWidth, row.defaultsText().size());
    }
    const auto column = [&](const std::string& text, std::size_t width) {
        out << text << std::string(width - text.size() + 2, ' ');
    };
    for (const Row& row : all)
    {
        column(row.name, nameWidth);
        column(row.typeText(), typeWidth);
        column(row.defaultsText(), defaultsWidth);
        out << (row.unit.empty() ? "" : "[" + row.unit + "] ") << row.effect << '\n';
    }
}

void writeMarkdown(std::ostream& out, const std::vector<Row>& all)
{
    for (const Row& row : all)
    {
        out << "| `" << row.name << "` | " << row.typeText() << " | " << row.defaultsText() << " | " << row.unit
            << (row.unit.empty() ? "| " : " | ") << row.effect << " |\n";
    }
}

void writeJson(std::ostream& out, const std::vector<Row>& all)
{
    const char* separator = "[";
    const auto numberOrNull = [](const std::string& text) {
        return text.empty() || text == "none" ? std::string("null") : text;
    };
    for (const Row& row : all)
    {
        out << separator << "{\"name\":" << Tool::jsonText(row.name) << ",\"type\":" << Tool::jsonText(row.type)
            << ",\"dynamic\":" << (row.isDynamic ? "true" : "false") << ",\"default\":" << numberOrNull(row.defaultText)
            << ",\"registered\":" << numberOrNull(row.registered) << ",\"unit\":" << Tool::jsonText(row.unit)
            << ",\"effect\":" << Tool::jsonText(row.effect) << "}";
        separator = ",\n ";
    }
    out << "]\n";
}

} // namespace

void Tool::writeTweakCatalogue(std::ostream& out, CatalogueForm form)
{
    switch (form)
    {
    case CatalogueForm::Text:
        writeText(out, rows());
        return;
    case CatalogueForm::Markdown:
        writeMarkdown(out, rows());
        return;
    case CatalogueForm::Json:
        writeJson(out, rows());
        return;
    }
}
