#include "datapath/common/infra/MethodText.h"

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

MethodText inUnnamedNamespace() { return THIS_METHOD; }

} // namespace

namespace SampleInternal
{

class Action
{
};

struct Outer
{
    explicit Outer(MethodText& text) : m_text(text) { text = THIS_METHOD; }
    ~Outer() { m_text = THIS_METHOD; }

    template <class T, int COUNT = 1> struct Queue
    {
        static std::vector<MethodText> enqueue(T, const std::function<void(T)>&) { return {THIS_METHOD}; }
        MethodText inLambda() const
        {
            return [](auto number) mutable { return number > 0 ? THIS_METHOD : MethodText{}; }(1);
        }
    };

    MethodText& m_text;
};

} // namespace SampleInternal

TEST(MethodText, FunctionsOfThisCompilerAreNamedAsTheLogWritesThem)
{
    using SampleInternal::Action;
    using SampleInternal::Outer;
    EXPECT_STREQ("inUnnamedNamespace", inUnnamedNamespace().text);
    EXPECT_EQ(",inUnnamedNamespace", inUnnamedNamespace().fields);
    MethodText text{};
    {
        const Outer outer(text);
        EXPECT_STREQ("SampleInternal::Outer::Outer", text.text);
    }
    EXPECT_EQ("SampleInternal::Outer,~Outer", text.fields);
    EXPECT_EQ("SampleInternal::Outer::Queue<class SampleInternal::Action *,1>,enqueue",
              (Outer::Queue<Action*>::enqueue(nullptr, {}).front().fields));
    EXPECT_EQ("SampleInternal::Outer::Queue<unsigned __int64,7>,inLambda::<lambda>",
              (Outer::Queue<std::uint64_t, 7>().inLambda().fields));
}

TEST(MethodText, UnusualSignaturesAreUnderstood)
{
    const auto name = [](const char* signature) {
        return std::string(MethodTextInternal::methodNameOf(signature).view());
    };
    EXPECT_EQ("C::operator<", name("bool C::operator<(int) const"));
    EXPECT_EQ("C::operator[]", name("int& C::operator[](int)"));
    EXPECT_EQ("f", name("decltype ((a + b)) f(A, B) [with A = int; B = int]"));
    EXPECT_EQ("C::f", name("int (& C::f())[3]"));
    EXPECT_EQ("f", name("void (M::* f(int))(char)"));
    EXPECT_EQ("<unnamed struct>::f", name("void<unnamed struct>::f()"));
    EXPECT_EQ("G<int>::operator int", name("G<T>::operator T() [with T = int]"));
    EXPECT_EQ("P<int,char *>::f", name("static void P<T>::f() [with T = {int, char*}]"));
    EXPECT_EQ("P<class A const &&,'x'>::f", name("void P<T, C>::f() [with T = const {anonymous}::A&&; char C = 'x']"));
    EXPECT_EQ("P<class f::<lambda> >::g", name("void P<T>::g() [with T = f(int)::<lambda(char)>]"));
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
