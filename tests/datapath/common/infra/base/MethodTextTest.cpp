#include "datapath/common/infra/base/MethodText.h"

#include "tests/support/Support.h"

#include <functional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

MethodText inUnnamedNamespace() { return TAVRO_METHOD; }

} // namespace

namespace SampleInternal
{

struct Outer
{
    explicit Outer(Texts& texts) : m_texts(texts) { add(TAVRO_METHOD); }
    ~Outer() { add(TAVRO_METHOD); }
    std::vector<std::function<int(int)>> inLambda(std::pair<int, Outer*>, int (&)[3]) const
    {
        [this](const std::function<void(int)>&) { add(TAVRO_METHOD); }({});
        return {};
    }
    void add(const MethodText& method) const { m_texts.emplace_back(method.fields()); }

    Texts& m_texts;
};

} // namespace SampleInternal

TEST(MethodText, FunctionsOfThisCompilerAreNamedAsTheLogWritesThem)
{
    Texts texts{std::string(inUnnamedNamespace().fields())};
    int numbers[3];
    SampleInternal::Outer(texts).inLambda({}, numbers);
    EXPECT_EQ((Texts{",inUnnamedNamespace", "SampleInternal::Outer,Outer", "SampleInternal::Outer,inLambda::<lambda>",
                     "SampleInternal::Outer,~Outer"}),
              texts);
}

TEST(MethodText, OtherSignaturesAreRefused)
{
    for (const char* const signature :
         {"bool C::operator<(int) const", "decltype ((a + b)) f(A, B) [with A = int; B = int]", "int (& C::f())[3]",
          "static void P<T>::f() [with T = int]", "void P<char>::f()", "C::f(int)::<lambda(auto)> [with auto:1 = int]",
          "void ns::{anonymous}::f()"})
    {
        EXPECT_THROW(MethodTextInternal::methodTextOf(signature), const char*) << signature;
    }
}

TEST(MethodText, CleaningSplitsAtTheLastColonsAndCutsLambdas)
{
    const auto cleaned = [](std::string text) {
        cleanMethodName(text);
        return text;
    };
    EXPECT_EQ(",wWinMain", cleaned("wWinMain"));
    EXPECT_EQ("Tweaks::Tweak,longVal", cleaned("Tweaks::Tweak::longVal"));
    EXPECT_EQ("PriorityQueue<class ActiveObject::Action *>,enqueue",
              cleaned("PriorityQueue<class ActiveObject::Action *>::enqueue"));
    EXPECT_EQ("MemoryPoolImpl,giveMemoryToWaiterLocked::<lambda>",
              cleaned("MemoryPoolImpl::giveMemoryToWaiterLocked::<lambda_1f>::operator ()"));
    EXPECT_EQ(",run::<lambda>", cleaned("run::<lambda_2>::operator ()::<lambda_3>::operator ()"));
    EXPECT_EQ(",<lambda>", cleaned("<lambda_4>::operator ()"));
    EXPECT_EQ(",", cleaned(""));
}
