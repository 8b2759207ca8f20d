// What hosts write every day compiles and means the obvious thing; what is ambiguous does not compile.

#include <gtest/gtest.h>

#include <limits>
#include <ostream>

#include "korvo/variant/variant.h"

using namespace korvo::variant;

namespace {

enum Plain { low = -1, high = 3 };
enum class Mode : short { night = 7 };

/** Whether an expression compiles for a value, a constant value, a text and a number. */
template <class Expression>
constexpr bool compiles(Expression) {
    return std::is_invocable<Expression, Variant&, const Variant&, std::string&, int&>::value;
}
#define COMPILES(...)                                                                                  \
    compiles([](auto& v, auto& c, auto& s, auto& n) -> decltype(void((__VA_ARGS__)), void(v), void(c), \
                                                                void(s), void(n)) {})
static_assert(COMPILES(v["p"] = n, v["p"] == n, s = v.template As<std::string>()));

template <class... Bool>
constexpr bool none(Bool... conditions) {
    return !(conditions || ...);
}

// A pointer that is no text is neither a number nor a boolean.
static_assert(none(COMPILES(v["p"] = &n), COMPILES(v["p"] = &v), COMPILES(v["p"] = s.begin())));
static_assert(none(COMPILES(v["p"] = static_cast<void*>(nullptr)), COMPILES(v["p"] = L"wide")));
static_assert(none(COMPILES(v["p"] == &v), std::is_assignable<Variant&, void (*)()>::value));
static_assert(none(std::is_constructible<Variant, void*>::value, std::is_convertible<Variant&, int*>::value));

// Where several conversions would do, the host names one.
static_assert(none(COMPILES(s = v["x"]), COMPILES(s + v["x"]), COMPILES(std::string{v["x"]})));
static_assert(none(COMPILES(v["x"] + 1), COMPILES(v["x"] < 1), COMPILES(v["x"] < v["y"])));
static_assert(none(COMPILES(n += v["x"]), COMPILES(true ? v["x"] : 5)));
static_assert(!COMPILES(std::declval<std::ostream&>() << v["x"]));

// No character comes unasked, no enumeration that might not have the number; a type tag is no number.
static_assert(none(std::is_convertible<Variant&, char>::value,
                   std::is_convertible<const Variant&, char>::value));
static_assert(none(std::is_convertible<Variant&, wchar_t>::value,
                   std::is_convertible<Variant&, char16_t>::value));
static_assert(none(std::is_convertible<Variant&, Mode>::value, COMPILES(v.template As<Plain>())));
static_assert(!COMPILES(v["x"] == TypeMap));

static_assert(none(COMPILES(v[v["x"]]), COMPILES(c[c["x"]])), "a value as a key: a text or an index?");
static_assert(!COMPILES(c["x"] = 1), "a constant value keeps its members");
static_assert(!COMPILES(std::move(v).Indexed()), "a loop over it would walk what is gone");

template <class Number>
void expectKept(Number number, VariantType type) {
    Variant v;
    v["n"] = number;
    EXPECT_EQ(VariantType(v["n"]), type);
    EXPECT_TRUE(v["n"] == number && number == v["n"] && !(v["n"] != number) && !(number != v["n"]));
    EXPECT_EQ(v["n"].As<Number>(), number);
    EXPECT_EQ(Variant(number), v["n"]);
}

TEST(EverydayCode, NumbersOfEveryTypeKeepTheirValueUnderATagThatHoldsIt) {
    expectKept(true, TypeBool);
    expectKept(static_cast<signed char>(-5), TypeInt8);
    expectKept(static_cast<unsigned char>(200), TypeUInt16);
    expectKept(static_cast<short>(-300), TypeInt32);
    expectKept(u'x', TypeUInt16);
    expectKept(5U, TypeUInt32);
    expectKept(-5L, sizeof(long) == 8 ? TypeInt64 : TypeInt32);
    expectKept(~0UL, sizeof(long) == 8 ? TypeUInt64 : TypeUInt32);
    expectKept(-5LL, TypeInt64);
    expectKept(2.5L, TypeDouble);
    expectKept(Mode::night, TypeInt32);
    EXPECT_TRUE(Variant(low) == low && Variant('A').As<char>() == 'A');
}

TEST(EverydayCode, ConvertsWithoutAWordWhereOnlyOneThingCanBeMeant) {
    const Variant number = 1e300, text = "text";
    const float real = number;
    const unsigned long word{number};
    std::size_t size = 0;
    size = number;
    EXPECT_TRUE(number && real == std::numeric_limits<float>::max() && word == size &&
                size == ~std::size_t{0});
    std::string copy = text, again(text);  // NOLINT(performance-unnecessary-copy-initialization)
    const char* const pointer = text;
    EXPECT_TRUE(copy == "text" && again == copy && pointer == copy);
}

TEST(EverydayCode, ComparesByValueWithNumbersAndTexts) {
    EXPECT_TRUE(Variant(1) == 1LL && Variant(1) == true && Variant(1) != 2 && 2U != Variant(1));
    EXPECT_TRUE(Variant(9007199254740993) != 9007199254740992.0 && Variant(~0ULL) != 0x1p64);
    EXPECT_TRUE(Variant(~0ULL) != -1 && Variant(-0x1p63) == std::numeric_limits<long long>::min());
    EXPECT_TRUE(Variant(0.5) == 0.5F && Variant(1.5) != 1 && Variant(0) == 0.0 && Variant(-1.0) == -1 &&
                Variant(-1) == -1.0);
    EXPECT_TRUE(Variant() != 0 && Variant() != 0.0 && Variant() != false && Variant() != "");
    EXPECT_TRUE(Variant("12") != 12 && Variant("0") != 0.0 && Variant("12") == "12" && "1" != Variant("12"));
    EXPECT_TRUE(Variant("a") == std::string("a") && std::string_view("a") == Variant("a"));
    const char* const none = nullptr;
    EXPECT_TRUE(Variant(none) == Variant() && Variant() == none && Variant() == nullptr &&
                Variant("") != none);
    Variant v = std::string_view("a\0b", 3), nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(v.As<std::string>().size() == 3 && nan == Variant(nan) && nan != nan.As<double>());
}

TEST(EverydayCode, MembersHaveKeysOfEveryKind) {
    Variant v;
    const Variant& c = v;
    const char* const none = nullptr;
    v["k"] = v[std::string("l")] = v[std::string_view("m")] = v[none] = 1;
    v[-1] = v[2U] = v[std::size_t{3}] = v[4LL] = v[0] = 2;
    EXPECT_EQ(v.Size(), 9U);
    EXPECT_TRUE(c["k"] == 1 && c[std::string("l")] == 1 && c[""] == 1 && c[5] == 2 && c[4U] == 2);
    EXPECT_TRUE(c["x"]["deeper"] == nullptr && c[9] == nullptr && v.Size() == 9);
    EXPECT_TRUE(v.Contains("k") && v.Contains(std::string_view("m")) && v.Contains(none) && v.Contains(4U));
    EXPECT_TRUE(c[high] == 2 && v.Remove(high) && (v[high] = 2) == 2);
    EXPECT_TRUE(!v.Contains("x") && !v.Contains(-1) && !v.Remove(-1) && !v.Remove("x") && v.Size() == 9);
    EXPECT_TRUE(v.Remove("k") && v.Remove(std::string("l")) && v.Remove(none) && v.Remove(4LL) &&
                v.Size() == 5);
    EXPECT_TRUE(!Variant(5).Contains("k") && !Variant(5).Remove("k") && Variant(5).Size() == 0);
}

TEST(EverydayCode, LoopsShowTheMembersThemselves) {
    Variant v;
    const Variant& c = v;
    v["a"] = v["b"] = v["c"] = v[-1] = v[3] = 2;
    std::string keys;
    for (auto& [key, member] : v) keys += key, member = key;
    for (const auto& [key, member] : c) keys += member.As<std::string>();
    long long sum = 0;
    for (auto [index, member] : v.Indexed()) sum += index * member.As<int>();
    for (auto& [index, member] : c.Indexed()) sum += index;
    EXPECT_TRUE(keys == "abcabc" && sum == 21 && v["b"] == "b" && v.begin()->second == "a");
}

}  // namespace
