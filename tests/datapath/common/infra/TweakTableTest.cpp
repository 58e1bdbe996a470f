#include "datapath/common/infra/TweakTable.h"
#include "tests/support/Support.h"

#include <map>
#include <random>

namespace
{

/// Texts of the bytes next to the letters' ranges, so that many of them differ in case alone.
std::string randomName(std::mt19937& random, std::size_t maxLength)
{
    constexpr std::string_view BYTES("@AZ[`az{\x80\xC1\xDA\xE1\xFA\0t_", 16);
    std::string name(random() % (maxLength + 1), ' ');
    std::ranges::generate(name, [&] { return BYTES[random() % BYTES.size()]; });
    return name;
}

TEST(AsciiCase, EightBytesAtOnceCompareAsSingleOnes)
{
    std::mt19937 random(1);
    for (int i = 0; i < 100'000; ++i)
    {
        const std::string one = randomName(random, 20);
        std::string other = one;
        std::ranges::transform(other, other.begin(), [&](char c) {
            const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            return static_cast<char>(isLetter && random() % 2 == 0 ? c ^ 0x20 : c);
        });
        ASSERT_TRUE(CaseInsensitiveEqual()(one, other)) << one;
        ASSERT_EQ(CaseInsensitiveHash()(one), CaseInsensitiveHash()(other)) << one;
        other = randomName(random, 20);
        const CaseInsensitiveLess less;
        ASSERT_EQ(!less(one, other) && !less(other, one), CaseInsensitiveEqual()(one, other)) << one << "/" << other;
        if (!one.empty())
        {
            other = one;
            other[random() % one.size()] ^= 0x20;
            ASSERT_EQ(!less(one, other) && !less(other, one), CaseInsensitiveEqual()(one, other)) << one << other;
        }
    }
}

TEST(TweakTable, BehavesLikeAnOrderedMap)
{
    std::mt19937 random(2);
    TweakTable table;
    std::map<std::string, std::string, CaseInsensitiveLess> model;
    for (int i = 0; i < 50'000; ++i)
    {
        const std::string name = randomName(random, 3);
        const auto number = static_cast<int>(random() % 1000);
        model.erase(name); // so that the spelling becomes the new one
        switch (random() % 3)
        {
        case 0:
            table.setNumber(name, number);
            model[name] = std::to_string(number);
            break;
        case 1:
            table.setText(name, "text " + std::to_string(number));
            model[name] = "text " + std::to_string(number);
            break;
        default:
            table.remove(name);
        }
        ASSERT_EQ(model.size(), table.size());
        ASSERT_EQ(model.contains(name), table.find(name) != nullptr);
    }
    std::map<std::string, std::string> listed;
    for (const TweakTable::Entry* const entry : table.entries())
    {
        const auto [kind, number] = table.read(entry->name());
        listed[std::string(entry->name())] =
            kind == TweakTable::Kind::Number ? std::to_string(number) : std::string(entry->text());
    }
    EXPECT_EQ((std::map<std::string, std::string>(model.begin(), model.end())), listed);
}

} // namespace
