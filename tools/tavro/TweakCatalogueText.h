#pragma once

// The catalogue of tweaks, for people and for programs.

#include <ostream>

namespace Tool
{

enum class CatalogueForm
{
    Text,     ///< columns
    Markdown, ///< the rows of the table in docs/configuration.md
    Json      ///< one array of objects
};

void writeTweakCatalogue(std::ostream& out, CatalogueForm form);

} // namespace Tool
