#pragma once

// A catalogue of the tweaks that code of this system acts on, with their types, in ascending byte order of the names.
// The compiler makes it from KnownTweaks.h, and nothing reads it at run time.

#include "datapath/common/infra/KnownTweaks.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

/// One line of the catalogue.
struct TweakDescriptor
{
    std::string_view name;
    std::string_view typeName; ///< "int", "uint" or "bool"
    bool isDynamic;            ///< a member of DynamicTweaks holds it
};

namespace TweakCatalogueInternal
{

template <class T> constexpr bool isListed(const KnownTweak<T>& tweak)
{
    return tweak.reader != TweakReader::DerivedSwitches && tweak.reader != TweakReader::OtherPrograms;
}

constexpr std::size_t NUM_LISTED = [] {
    std::size_t count = 0;
    forEachKnownTweak([&](const auto& tweak) { count += static_cast<std::size_t>(isListed(tweak)); });
    return count;
}();

consteval std::array<TweakDescriptor, NUM_LISTED> makeCatalogue()
{
    std::array<TweakDescriptor, NUM_LISTED> catalogue{};
    std::size_t count = 0;
    forEachKnownTweak([&](const auto& tweak) {
        if (isListed(tweak))
        {
            catalogue[count++] = {tweak.name, tweak.typeName(), tweak.reader == TweakReader::DynamicTweaks};
        }
    });
    std::ranges::sort(catalogue, {}, &TweakDescriptor::name);
    return catalogue;
}

} // namespace TweakCatalogueInternal

inline constexpr std::array TweakCatalogue = TweakCatalogueInternal::makeCatalogue();

static_assert(std::ranges::adjacent_find(TweakCatalogue, {}, &TweakDescriptor::name) == TweakCatalogue.end(),
              "each name is listed once");
