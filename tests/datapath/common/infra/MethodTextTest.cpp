#include "datapath/common/infra/MethodText.h"

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{
MethodText inUnnamedNamespace()
{
    return THIS_METHOD;
}
} // namespace

MethodText bareFunction(int, const char (&)[3])
{
    return THIS_METHOD;
}

template <class T> MethodText functionTemplate(const T&)
{
    return THIS_METHOD;
}

namespace SampleInternal
{
class Action
{
};

struct Outer
{
    explicit Outer(MethodText& text) : m_text(text) { text = THIS_METHOD; }
    ~Outer() { m_text = THIS_METHOD; }

    class Inner
    {
    public:
        MethodText constant(std::pair<int, long>) const noexcept { return THIS_METHOD; }
        static std::vector<MethodText> returnsTemplate() { return {THIS_METHOD}; }
        MethodText inLambda() const
        {
            return [](auto number) mutable {
                return number > 0 ? [] { return THIS_METHOD; }() : MethodText{};
            }(1);
        }
        operator MethodText() const { return THIS_METHOD; }
        MethodText operator()(int) { return THIS_METHOD; }
        MethodText operator<(int) { return THIS_METHOD; }
        MethodText operator[](int) { return THIS_METHOD; }
    };

    MethodText& m_text;
};
} // namespace SampleInternal

template <class T, int COUNT = 1> struct Queue
{
    static MethodText enqueue(T, std::function<void(T)>) { return THIS_METHOD; }
    static MethodText inLambda()
    {
        return [] {
            return THIS_METHOD;
        }();
    }
    template <class U> static MethodText member(U) { return THIS_METHOD; }
};

TEST(MethodText, FreeFunctionsHaveNoClass)
{
    EXPECT_STREQ("bareFunction", bareFunction(1, "ab").text);
    EXPECT_EQ(",bareFunction", bareFunction(1, "ab").fields);
    EXPECT_EQ(",functionTemplate", functionTemplate(std::string()).fields);
    EXPECT_EQ(",inUnnamedNamespace", inUnnamedNamespace().fields);
}

TEST(MethodText, MembersKeepTheirWholeClassName)
{
    using SampleInternal::Outer;
    Outer::Inner inner;
    EXPECT_STREQ("SampleInternal::Outer::Inner::constant", inner.constant({}).text);
    EXPECT_EQ("SampleInternal::Outer::Inner,constant", inner.constant({}).fields);
    EXPECT_EQ("SampleInternal::Outer::Inner,returnsTemplate", Outer::Inner::returnsTemplate().front().fields);
    EXPECT_EQ("SampleInternal::Outer::Inner,operator()", inner(1).fields);
    EXPECT_EQ("SampleInternal::Outer::Inner,operator<", (inner < 1).fields);
    EXPECT_EQ("SampleInternal::Outer::Inner,operator[]", inner[1].fields);
    EXPECT_EQ("SampleInternal::Outer::Inner,operator MethodText", static_cast<MethodText>(inner).fields);
    EXPECT_EQ("SampleInternal::Outer::Inner,inLambda::<lambda>", inner.inLambda().fields);

    MethodText text{};
    {
        const Outer outer(text);
        EXPECT_EQ("SampleInternal::Outer,Outer", text.fields);
    }
    EXPECT_EQ("SampleInternal::Outer,~Outer", text.fields);
}

TEST(MethodText, TemplateArgumentsAreSpelledWithTheirKind)
{
    using SampleInternal::Action;
    EXPECT_STREQ("Queue<class SampleInternal::Action *,1>::enqueue", (Queue<Action*>::enqueue(nullptr, {}).text));
    EXPECT_EQ("Queue<class SampleInternal::Action const *,3>,inLambda::<lambda>",
              (Queue<const Action*, 3>::inLambda().fields));
    EXPECT_EQ("Queue<unsigned __int64,7>,member", (Queue<std::uint64_t, 7>::member('c').fields));
    EXPECT_EQ("Queue<class Queue<unsigned int,2>,1>,member", (Queue<Queue<unsigned, 2>>::member(1).fields));
}

TEST(MethodText, UnusualSignaturesAreUnderstood)
{
    using MethodTextInternal::methodNameOf;
    EXPECT_EQ("f", methodNameOf("decltype ((a + b)) f(A, B) [with A = int; B = int]").view());
    EXPECT_EQ("C::f", methodNameOf("int (& C::f())[3]").view());
    EXPECT_EQ("f", methodNameOf("void (M::* f(int))(char)").view());
    EXPECT_EQ("<unnamed struct>::f", methodNameOf("void<unnamed struct>::f()").view());
    EXPECT_EQ("G<int>::operator int", methodNameOf("G<T>::operator T() [with T = int]").view());
    EXPECT_EQ("P<int,char *>::f", methodNameOf("static void P<T>::f() [with T = {int, char*}]").view());
    EXPECT_EQ("P<class A const &&,'x'>::f",
              methodNameOf("void P<T, C>::f() [with T = const {anonymous}::A&&; char C = 'x']").view());
    EXPECT_EQ("P<class f::<lambda> >::g", methodNameOf("void P<T>::g() [with T = f(int)::<lambda(char)>]").view());
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
