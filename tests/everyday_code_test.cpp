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

template <class T>
constexpr bool isGiven =
    std::is_convertible<Variant&, T>::value || std::is_convertible<const Variant&, T>::value;

template <class... Bool>
constexpr bool none(Bool... conditions) {
    return !(conditions || ...);
}

// A pointer that is no text is neither a number nor a boolean.
static_assert(none(COMPILES(v["p"] = &n), COMPILES(v["p"] = s.begin()), COMPILES(v["p"] = L"wide")));
static_assert(none(COMPILES(v["p"] == &v), std::is_constructible<Variant, void*>::value, isGiven<int*>));

// Where several conversions would do, the host names one.
static_assert(none(COMPILES(s = v["x"]), COMPILES(s + v["x"]), COMPILES(std::string{v["x"]})));
static_assert(none(COMPILES(v["x"] + 1), COMPILES(v["x"] < 1), COMPILES(v["x"] < v["y"])));
static_assert(none(COMPILES(n += v["x"]), COMPILES(std::declval<std::ostream&>() << v["x"])));

// No character comes unasked, no enumeration that might not have the number; a type tag is no number.
static_assert(none(isGiven<char>, isGiven<Mode>, COMPILES(v.template As<Plain>()),
                   COMPILES(v["x"] == TypeMap)));

static_assert(none(COMPILES(v[v["x"]]), COMPILES(c[c["x"]])), "a value as a key: a text or an index?");
static_assert(!COMPILES(c["x"] = 1), "a constant value keeps its members");
static_assert(!COMPILES(std::move(v).Indexed()), "a loop over it would walk what is gone");

template <class Number>
bool isKept(Number number, VariantType type) {
    const Variant v(number);
    return v == number && number == v && !(v != number) && !(number != v) && v.As<Number>() == number &&
           VariantType(v) == type;
}

TEST(EverydayCode, NumbersOfEveryTypeKeepTheirValueUnderATagThatHoldsIt) {
    EXPECT_TRUE(isKept(true, TypeBool) && isKept(static_cast<signed char>(-5), TypeInt8));
    EXPECT_TRUE(isKept(static_cast<unsigned char>(200), TypeUInt16) && isKept(u'x', TypeUInt16));
    EXPECT_TRUE(isKept(static_cast<short>(-300), TypeInt32) && isKept(5U, TypeUInt32));
    EXPECT_TRUE(isKept(~0UL, sizeof(long) == 8 ? TypeUInt64 : TypeUInt32) && isKept(2.5L, TypeDouble));
    EXPECT_TRUE(isKept(Mode::night, TypeInt32) && Variant(low) == low && Variant('A').As<char>() == 'A');
}

TEST(EverydayCode, ConvertsWithoutAWordWhereOnlyOneThingCanBeMeant) {
    const Variant number = 1e300, text = "text";
    const float real = number;
    const std::size_t size{number};
    EXPECT_TRUE(number && real == std::numeric_limits<float>::max() && size == ~std::size_t{0});
    std::string copy(text);
    copy += static_cast<const char*>(text);
    EXPECT_EQ(copy, "texttext");
}

TEST(EverydayCode, ComparesByValueWithNumbersAndTexts) {
    EXPECT_TRUE(Variant(1) == 1LL && Variant(1) == true && 2U != Variant(1) && Variant(0) == 0.0);
    EXPECT_TRUE(Variant(9007199254740993) != 9007199254740992.0 && Variant(~0ULL) != 0x1p64);
    EXPECT_TRUE(Variant(~0ULL) != -1 && Variant(-0x1p63) == std::numeric_limits<long long>::min());
    EXPECT_TRUE(Variant(0.5) == 0.5F && Variant(1.5) != 1 && Variant(-1.0) == -1 && Variant(-1) == -1.0);
    EXPECT_TRUE(Variant() != 0 && Variant() != 0.0 && Variant() != false && Variant() != "");
    EXPECT_TRUE(Variant("12") != 12 && Variant("0") != 0.0 && std::string_view("a") == Variant("a"));
    EXPECT_TRUE(Variant() == nullptr && Variant("") != nullptr);
    const Variant nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(nan == Variant(nan) && nan != nan.As<double>());
}

TEST(EverydayCode, MembersHaveKeysOfEveryKindAndLoopsShowTheMembersThemselves) {
    Variant v;
    const Variant& c = v;
    const char* const none = nullptr;
    EXPECT_TRUE(c["x"]["y"] == nullptr && c[9] == nullptr && !v.Contains("x") && !v.Remove(-1) &&
                v.Size() == 0);
    v["a"] = v[std::string("b")] = v[std::string_view("c")] = v[none] = v[2U] = v[3UL] = v[4LL] = 2;
    EXPECT_TRUE(c[""] == 2 && c[std::string("b")] == 2 && c[4U] == 2 && v.Contains(std::string_view("c")));
    EXPECT_TRUE(v.Remove(none) && v.Contains(4U) && v.Remove(4LL) && v.Size() == 5);
    EXPECT_TRUE(c[high] == 2 && v.Contains(high));
    std::string keys;
    for (auto& [key, member] : v) keys += key, member = key;
    for (const auto& [key, member] : c) keys += member.As<std::string>();
    long long sum = 0;
    for (auto [index, member] : v.Indexed()) sum += index * member.As<int>();
    for (auto& [index, member] : c.Indexed()) sum += index;
    EXPECT_TRUE(keys == "abcabc" && sum == 15 && v.begin()->second == "a");
}

}  // namespace
