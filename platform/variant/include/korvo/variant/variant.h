/**
 * @file
 * Variant, the dynamically typed value that the device's libraries exchange: null, a boolean, an integer, a
 * double, a string, or a container of further values.
 *
 * @code
 * Variant camera;
 * camera["name"] = "door";
 * camera["rtsp"]["port"] = 554;
 * camera["presets"][-1] = 2.5;
 * const int port = camera["rtsp"]["port"];
 * if (camera["name"] == "door" && !camera.Contains("zoom")) camera.Remove("presets");
 * for (auto& [key, member] : camera) show(key, member.As<std::string>());  // members with text keys
 * for (auto& [index, member] : camera["presets"].Indexed()) move(index, member);  // those with an index
 * @endcode
 *
 * Ownership: a Variant owns its content. Copies are deep; a moved-from Variant is null.
 *
 * References: what `operator[]` and GetKeyChain() return stays valid until that member is removed or its
 * container is assigned to, reset, freed or destroyed. Adding and removing other members does not affect it.
 * Moving or swapping a container moves its members with it, and references to them stay valid.
 *
 * Threads: distinct values may be used from distinct threads. Several threads may read one value through
 * const operations; every other operation needs exclusive access.
 *
 * Errors: the only exception is std::bad_alloc. It leaves every value valid, and the target of a failed
 * assignment unchanged.
 *
 * Conversions never fail and have no undefined behaviour:
 *
 * | from \ to      | integer                         | floating          | bool           | text         |
 * |----------------|---------------------------------|-------------------|----------------|--------------|
 * | integer        | the value modulo 2^n            | nearest           | whether not 0  | empty        |
 * | double         | towards 0; saturates, NaN is 0  | saturates         | not 0, not NaN | empty        |
 * | boolean        | 1 or 0                          | 1 or 0            | the value      | empty        |
 * | string         | 0                               | 0                 | false          | the string   |
 * | anything else  | 0                               | 0                 | false          | empty        |
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

/** Marks what the variant library exports. */
#define KORVO_VARIANT_EXPORT __attribute__((visibility("default")))

/** Hides a member of an exported class. */
#define KORVO_VARIANT_PRIVATE __attribute__((visibility("hidden")))

namespace korvo::variant {

/**
 * The type tag of a value, a set of category bits: a value belongs to a category when `(type & CATEGORY) ==
 * CATEGORY`. Test for TypeDouble before TypeNumeric, which doubles carry too.
 */
enum VariantType : std::uint16_t {
    TypeNull = 0x0001,
    TypeMap = 0x1010,       ///< container, map form
    TypeTypedMap = 0x1011,  ///< also map form; never produced
    TypeArray = 0x1012,     ///< container, array form
    TypeString = 0x100e,
    TypeNumeric = 0x4000,  ///< the category of all integers and of double; no value has exactly this tag
    TypeInt8 = 0x4110,
    TypeInt32 = 0x4140,
    TypeInt64 = 0x4180,
    TypeUInt16 = 0x4220,
    TypeUInt32 = 0x4240,
    TypeUInt64 = 0x4280,
    TypeBool = 0x8003,
    TypeDouble = 0xe00c,
    TypeAny = 0xffff  ///< as a filter only: passes every type, null included
};

/**
 * The tag under which a C++ type @p T is held: an integer's own width or the next wider one, so that it keeps
 * its value; double for every floating type; for an enumeration, the tag of its underlying type; TypeNull for
 * other types, such as pointers.
 */
template <class T>
constexpr VariantType numberTag() {
    constexpr bool isSigned = std::is_signed<T>::value;
    if constexpr (std::is_same<T, bool>::value)
        return TypeBool;
    else if constexpr (std::is_floating_point<T>::value)
        return TypeDouble;
    else if constexpr (std::is_enum<T>::value)
        return numberTag<std::underlying_type_t<T>>();
    else if constexpr (!std::is_integral<T>::value || std::numeric_limits<T>::digits > 64)
        return TypeNull;
    else if constexpr (sizeof(T) > 4)
        return isSigned ? TypeInt64 : TypeUInt64;
    else if constexpr (isSigned)
        return sizeof(T) == 1 ? TypeInt8 : TypeInt32;
    else
        return sizeof(T) <= 2 ? TypeUInt16 : TypeUInt32;
}

/// @cond
class Container;
class Variant;

// Used by the templates below.
namespace detail {

template <class T>
inline constexpr bool isNumber = numberTag<T>() != TypeNull;

template <class T>
inline constexpr bool isIndex =
    (std::is_integral<T>::value || std::is_enum<T>::value) && std::is_convertible<T, long long>::value &&
    !std::is_same<T, bool>::value;

/** Whether an enumeration has a fixed underlying type, so that every number of that type is a valid value. */
template <class T, class = void>
inline constexpr bool isFixedEnumeration = false;
template <class T>
inline constexpr bool
    isFixedEnumeration<T, std::enable_if_t<std::is_enum<T>::value, std::void_t<decltype(T{0})>>> = true;

template <class T>
inline constexpr bool isNamedConversion = (std::is_arithmetic<T>::value && isNumber<T>) ||
                                          isFixedEnumeration<T> || std::is_same<T, std::string>::value
                                          || std::is_same<T, std::string_view>::value
                                          || std::is_same<T, const char*>::value;

/** Types that compare by number or by text. Not VariantType, which would compare as a number. */
template <class T>
inline constexpr bool isComparedNumber = isNumber<T> && !std::is_same<T, VariantType>::value;
template <class T>
inline constexpr bool isComparedText =
    !std::is_base_of<Variant, T>::value && (std::is_convertible<const T&, const char*>::value ||
                                            std::is_convertible<const T&, std::string_view>::value);

/** Converts to a type that may be narrower; a finite number beyond its range becomes its nearest one. */
template <class To, class From>
To narrowed(From value) {
    if constexpr (std::numeric_limits<From>::max_exponent > std::numeric_limits<To>::max_exponent) {
        constexpr From largest = std::numeric_limits<To>::max();
        constexpr From infinity = std::numeric_limits<From>::infinity();
        if (value > largest && value != infinity) return std::numeric_limits<To>::max();
        if (value < -largest && value != -infinity) return std::numeric_limits<To>::lowest();
    }
    return static_cast<To>(value);
}

// The key as one of the two kinds: text or index.
inline std::string_view memberKey(const char* key) { return key != nullptr ? key : ""; }
inline std::string_view memberKey(std::string_view key) { return key; }
template <class Integer, std::enable_if_t<isIndex<Integer>, int> = 0>
long long memberKey(Integer index) {
    return static_cast<long long>(index);
}

/** Returns the member at a position among those with keys of this kind, and stores its key. */
KORVO_VARIANT_EXPORT Variant& memberAt(const Container& container, std::size_t position,
                                       std::string_view& key);
KORVO_VARIANT_EXPORT Variant& memberAt(const Container& container, std::size_t position, long long& key);

}  // namespace detail
/// @endcond

/** Walks the members of a value that have keys of one kind, text or index. See Variant::begin(). */
template <class Key, class Value>
class MemberIterator {
  public:
    /** A member as the iterator shows it. It outlives the iterator. */
    struct Element {
        Key first;      ///< the key; a text key is a view that lives as long as the member
        Value& second;  ///< the member
    };

    using iterator_category = std::input_iterator_tag;
    using value_type = Element;
    using difference_type = std::ptrdiff_t;
    using reference = const Element;

    /** Holds the element for `it->first`. */
    struct pointer {
        Element element;
        const Element* operator->() const { return &element; }
    };

    /** Returns a constant, so that `auto&` in a loop binds to it. */
    reference operator*() const {
        Key key{};
        Value& member = detail::memberAt(*container, index, key);
        return {key, member};
    }
    pointer operator->() const { return {**this}; }
    MemberIterator& operator++() {
        ++index;
        return *this;
    }
    MemberIterator operator++(int) {
        MemberIterator before(*this);
        ++*this;
        return before;
    }
    bool operator==(const MemberIterator& other) const { return index == other.index; }
    bool operator!=(const MemberIterator& other) const { return index != other.index; }

  private:
    friend class Variant;
    MemberIterator(const Container* owner, std::size_t first) : container(owner), index(first) {}

    const Container* container;  ///< null when the value has no members
    std::size_t index;           ///< position among the members with keys of this kind
};

/** The range that Variant::Indexed() returns. */
template <class Iterator>
struct MemberRange {
    Iterator first, last;
    Iterator begin() const { return first; }
    Iterator end() const { return last; }
};

/** The most components of a key, and so the most levels of a tree, in key=value text. */
inline constexpr std::size_t maxKeyComponents = 64;

/** The dynamically typed value. The top of this file says what holds for all its operations. */
class KORVO_VARIANT_EXPORT Variant {
  public:
    using iterator = MemberIterator<std::string_view, Variant>;
    using const_iterator = MemberIterator<std::string_view, const Variant>;
    using num_iterator = MemberIterator<long long, Variant>;
    using const_num_iterator = MemberIterator<long long, const Variant>;

    constexpr Variant() noexcept = default;
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;

    /** A number, or an enumerator by its number; held as numberTag() says. */
    template <class Number, std::enable_if_t<detail::isNumber<Number>, int> = 0>
    Variant(Number value) noexcept {
        holdNumber(value);
    }
    Variant(const char* value);  ///< a copy of the text; a null pointer gives the null value
    Variant(std::string_view value);
    Variant(const std::string& value) : Variant(std::string_view(value)) {}
    Variant(std::string&& value) noexcept;
    virtual ~Variant();

    /** @name Assignment
     * Replaces the value. The source may be the value itself, one of its members, or a text inside it. Do not
     * move a value into one of its own members.
     * @{ */
    Variant& operator=(const Variant& other);
    Variant& operator=(Variant&& other) noexcept;
    template <class Number, std::enable_if_t<detail::isNumber<Number>, int> = 0>
    Variant& operator=(Number value) noexcept {
        Reset();
        holdNumber(value);
        return *this;
    }
    Variant& operator=(const char* value);  ///< a null pointer gives the null value
    Variant& operator=(std::string_view value);
    Variant& operator=(const std::string& value) { return *this = std::string_view(value); }
    Variant& operator=(std::string&& value) noexcept;
    /** @} */

    /** Makes the value null and frees what it held. */
    void Reset() noexcept;

    void Free() noexcept { Reset(); }  ///< the same as Reset()

    /** Makes the value an array or a map. A container keeps its members, any other value becomes empty. */
    void IsArray(bool array) noexcept;

    /** @name Members
     * The member under a key, added as a null value when missing. A value that is no container becomes an
     * empty one first: a map for a text key, an array for an index. A null pointer is the empty key.
     *
     * Indices are signed 64-bit numbers; an unsigned one must be below 2^63. The index -1 appends: it means
     * one more than the last index, at least 0, or the last index itself if that is the largest possible.
     * @{ */
    Variant& operator[](const char* key) { return member(detail::memberKey(key)); }
    Variant& operator[](std::string_view key) { return member(key); }
    Variant& operator[](const std::string& key) { return member(std::string_view(key)); }
    Variant& operator[](long long index) { return member(index); }
    template <class Integer, std::enable_if_t<detail::isIndex<Integer>, int> = 0>
    Variant& operator[](Integer index) {
        return member(detail::memberKey(index));
    }
    /** @} */

    /** @name Members of a constant value
     * The member under a key, or a shared null value when there is none; -1 finds none.
     * @{ */
    const Variant& operator[](const char* key) const { return orNull(find(detail::memberKey(key))); }
    const Variant& operator[](std::string_view key) const { return orNull(find(key)); }
    const Variant& operator[](const std::string& key) const { return orNull(find(std::string_view(key))); }
    const Variant& operator[](long long index) const { return orNull(find(index)); }
    template <class Integer, std::enable_if_t<detail::isIndex<Integer>, int> = 0>
    const Variant& operator[](Integer index) const {
        return orNull(find(detail::memberKey(index)));
    }
    /** @} */

    /** The number of members of both kinds; 0 unless the value is a container. */
    std::size_t Size() const noexcept { return count(false) + count(true); }

    /** Whether there is a member under a key, a text or an index; -1 finds none. */
    template <class Key>
    bool Contains(const Key& key) const noexcept {
        return find(detail::memberKey(key)) != nullptr;
    }

    /**
     * Removes the member under a key, a text or an index, and returns whether there was one; -1 finds none.
     * The value stays a map or an array even if that was its last member.
     */
    template <class Key>
    bool Remove(const Key& key) noexcept {
        return removeMember(detail::memberKey(key));
    }

    /** @name Iteration
     * begin() to end() are the members with text keys, in byte order; num_begin() to num_end() those with an
     * index, in ascending order. So `for (auto& [key, member] : value)` leaves out the members with an index,
     * which are all of an array; `for (auto& [index, member] : value.Indexed())` walks them. Both ranges are
     * empty unless the value is a container. Adding or removing a member invalidates the iterators.
     * @{ */
    iterator begin() { return {members(), 0}; }
    iterator end() { return {members(), count(false)}; }
    const_iterator begin() const { return {members(), 0}; }
    const_iterator end() const { return {members(), count(false)}; }
    num_iterator num_begin() { return {members(), 0}; }
    num_iterator num_end() { return {members(), count(true)}; }
    const_num_iterator num_begin() const { return {members(), 0}; }
    const_num_iterator num_end() const { return {members(), count(true)}; }
    MemberRange<num_iterator> Indexed() & { return {num_begin(), num_end()}; }
    MemberRange<const_num_iterator> Indexed() const& { return {num_begin(), num_end()}; }
    void Indexed() const&& = delete;  ///< a loop would walk a value that is gone
    /** @} */

    /**
     * Finds a value below this one; creates nothing.
     *
     * @param filter    `(type & filter) == filter` must hold for the value. TypeAny passes every value,
     *                  TypeMap arrays too
     * @param path      components separated by "/". A component is exactly a text key, even if it is empty or
     *                  all digits; "[n]" with an integer n is an index, "[text]" with anything else the text
     *                  key between the brackets
     * @param reserved  not used
     * @return the value, or null when there is none or it does not pass the filter
     */
    Variant* GetKeyChain(VariantType filter, const char* path, bool reserved);
    const Variant* GetKeyChain(VariantType filter, const char* path, bool reserved) const;

    /** @name Key=value text
     * One `key=value` per line, split at the first "=". The key is a path of text keys with dots between
     * them: the line `a.b=5` is member b of member a. A line ends with a line feed or with a carriage return
     * and a line feed. Nothing is trimmed. Blank lines and lines that begin with "#" are skipped. The last
     * value of a repeated key counts.
     * @{ */

    /**
     * Replaces the value with the map that @p text describes. Accepts any bytes.
     *
     * Returns false and leaves the value unchanged for what ToKVP() could not give back: a line that is not
     * blank and has no "=", a key with both a value and keys below it, a key of more than maxKeyComponents
     * components, a value that ends with a carriage return.
     *
     * With @p valuesAsStrings every value is held as a string; otherwise as a number when it is exactly the
     * text that ToKVP() writes for that number (7, -3, 2.5; not 007, 1.50 or 1e3): the first of int, long
     * long, unsigned long long and double that fits.
     */
    [[nodiscard]] bool FromKVP(const std::string& text, bool reserved, bool valuesAsStrings, bool reserved2);

    /** FromKVP() for the file at @p path; also false, with errno set, when the file cannot be read. */
    [[nodiscard]] bool FromKVPFile(const std::string& path, bool reserved, bool valuesAsStrings,
                                   bool reserved2);

    /**
     * Writes the tree as key=value text into @p text, replacing what it held.
     *
     * Members with an index come first, in ascending order, under their decimal index; then those with text
     * keys. Booleans are written as 1 and 0, doubles in the shortest form that reads back the same, with ".0"
     * where that would look like an integer. Null members and empty containers have no line.
     *
     * Returns false and leaves @p text unchanged for what would not read back as the same tree: a key that
     * holds "=", "." or a line feed, a value that holds a line feed, a line that begins with "#" or ends with
     * a carriage return, an index and a text key that look the same, more than maxKeyComponents levels, and
     * this value itself unless it is a container or null. A member that has no line may have any key.
     *
     * With other separators a line is refused unless its first key separator comes right after the key and
     * its first line separator right after the value; an empty separator is never refused.
     *
     * @param text           receives the text; must not be a text inside this value. Its capacity is reserved
     *                       for the new text too, which saves reallocations
     * @param keySeparator   between key and value, normally "="
     * @param lineSeparator  after each line, normally "\n"
     */
    [[nodiscard]] bool ToKVP(std::string& text, const std::string& keySeparator,
                             const std::string& lineSeparator) const;
    /** @} */

    /** Frees the spare capacity of texts and member lists; changes no value. */
    void Compact();

    /** @name Conversions (table at the top of this file)
     * @{ */
    operator VariantType() const noexcept { return type; }
    // Not one template: compilers ignore conversion templates for built-in operators, and would then pick a
    // conversion that nobody meant.
    operator bool() const noexcept { return As<bool>(); }
    operator signed char() const noexcept { return As<signed char>(); }
    operator unsigned char() const noexcept { return As<unsigned char>(); }
    operator short() const noexcept { return As<short>(); }
    operator unsigned short() const noexcept { return As<unsigned short>(); }
    operator int() const noexcept { return As<int>(); }
    operator unsigned int() const noexcept { return As<unsigned int>(); }
    operator long() const noexcept { return As<long>(); }
    operator unsigned long() const noexcept { return As<unsigned long>(); }
    operator long long() const noexcept { return As<long long>(); }
    operator unsigned long long() const noexcept { return As<unsigned long long>(); }
    operator float() const noexcept { return As<float>(); }
    operator double() const noexcept { return As<double>(); }
    operator long double() const noexcept { return As<long double>(); }
    operator const std::string&() const noexcept;
    /** Never null; valid until the value changes. */
    operator const char*() const noexcept { return static_cast<const std::string&>(*this).c_str(); }
    /** @} */

    /**
     * The same conversions by name, where the implicit one is ambiguous: in expressions, `switch`,
     * output, and assignment to a string. @p T is an arithmetic type, characters included, an enumeration
     * with a fixed underlying type, VariantType for the type tag, std::string, std::string_view or
     * const char*. Views and pointers stay valid until the value changes.
     */
    template <class T, std::enable_if_t<detail::isNamedConversion<T>, int> = 0>
    T As() const {
        if constexpr (std::is_same<T, VariantType>::value)
            return type;
        else if constexpr (std::is_same<T, bool>::value)
            return toBool();
        else if constexpr (std::is_floating_point<T>::value)
            return toReal<T>();
        else if constexpr (std::is_integral<T>::value)
            return static_cast<T>(toInteger(std::numeric_limits<T>::digits, std::is_signed<T>::value));
        else if constexpr (std::is_enum<T>::value)
            return static_cast<T>(As<std::underlying_type_t<T>>());
        else if constexpr (std::is_same<T, const char*>::value)
            return static_cast<const char*>(*this);
        else
            return T(static_cast<const std::string&>(*this));
    }

    /**
     * Deep equality of type and value of two values: the integer 1 and the boolean true differ, and so do 1
     * as int and as long long. A NaN equals a NaN, so that a copy always equals its original.
     */
    friend KORVO_VARIANT_EXPORT bool operator==(const Variant& left, const Variant& right);
    friend bool operator!=(const Variant& left, const Variant& right) { return !(left == right); }

    /** @name Comparison with numbers and texts
     * By value, whatever the types: a number of any type equals the same number, a boolean being 1 or 0; a
     * text equals the same text and no number; a container equals neither. Only null equals a null pointer.
     * @{ */
    template <class T, std::enable_if_t<detail::isComparedNumber<T>, int> = 0>
    friend bool operator==(const Variant& left, T right) noexcept {
        return left.equalsNumber(right);
    }
    template <class T, std::enable_if_t<detail::isComparedNumber<T>, int> = 0>
    friend bool operator==(T left, const Variant& right) noexcept {
        return right.equalsNumber(left);
    }
    template <class T, std::enable_if_t<detail::isComparedNumber<T>, int> = 0>
    friend bool operator!=(const Variant& left, T right) noexcept {
        return !left.equalsNumber(right);
    }
    template <class T, std::enable_if_t<detail::isComparedNumber<T>, int> = 0>
    friend bool operator!=(T left, const Variant& right) noexcept {
        return !right.equalsNumber(left);
    }
    template <class T, std::enable_if_t<detail::isComparedText<T>, int> = 0>
    friend bool operator==(const Variant& left, const T& right) {
        return left.equalsText(right);
    }
    template <class T, std::enable_if_t<detail::isComparedText<T>, int> = 0>
    friend bool operator==(const T& left, const Variant& right) {
        return right.equalsText(left);
    }
    template <class T, std::enable_if_t<detail::isComparedText<T>, int> = 0>
    friend bool operator!=(const Variant& left, const T& right) {
        return !left.equalsText(right);
    }
    template <class T, std::enable_if_t<detail::isComparedText<T>, int> = 0>
    friend bool operator!=(const T& left, const Variant& right) {
        return !right.equalsText(left);
    }
    /** @} */

  private:
    friend class Container;

    union Payload {
        constexpr Payload() noexcept : integer(0) {}
        ~Payload() {}
        /** An integer of any width, sign-extended if its type is signed; 1 or 0 for a boolean. */
        std::uint64_t integer;
        double real;
        std::string text;
        Container* container;  ///< null while the container is empty
    };

    bool isNumber() const noexcept { return (type & TypeNumeric) != 0 || type == TypeBool; }
    bool isContainer() const noexcept { return type == TypeMap || type == TypeArray; }
    Container* members() const noexcept { return isContainer() ? payload.container : nullptr; }

    // Called by the templates above; the overloads take a text key or an index.
    Variant& member(std::string_view key);
    Variant& member(long long index);
    const Variant* find(std::string_view key) const noexcept;
    const Variant* find(long long index) const noexcept;
    bool removeMember(std::string_view key) noexcept;
    bool removeMember(long long index) noexcept;
    std::size_t count(bool hasIndex) const noexcept;
    static const Variant& orNull(const Variant* found) noexcept;
    /** Makes this a number. The value must own nothing. */
    template <class Number>
    void holdNumber(Number value) noexcept {
        if constexpr (std::is_floating_point<Number>::value)
            payload.real = detail::narrowed<double>(value);
        else
            payload.integer = static_cast<std::uint64_t>(static_cast<long long>(value));
        type = numberTag<Number>();
    }
    bool toBool() const noexcept;
    std::uint64_t toInteger(int valueBits, bool isSigned) const noexcept;
    template <class Real>
    Real toReal() const noexcept {
        if (type == TypeDouble) return detail::narrowed<Real>(payload.real);
        const std::uint64_t integer = toInteger(63, true);
        return type == TypeUInt64 ? static_cast<Real>(integer)
                                  : static_cast<Real>(static_cast<std::int64_t>(integer));
    }
    bool equalsNumber(const Variant& number) const noexcept;
    bool equalsText(std::string_view text) const noexcept;
    bool equalsText(const char* text) const noexcept {
        return text != nullptr ? equalsText(std::string_view(text)) : type == TypeNull;
    }

    KORVO_VARIANT_PRIVATE void moveFrom(Variant& other) noexcept;
    KORVO_VARIANT_PRIVATE void holdText(std::string_view value);
    KORVO_VARIANT_PRIVATE void copyWithoutMembers(const Variant& other);
    KORVO_VARIANT_PRIVATE Variant& firstMember(std::string_view key, bool hasIndex);
    KORVO_VARIANT_PRIVATE bool isNegative() const noexcept;
    KORVO_VARIANT_PRIVATE const Variant* findComponent(std::string_view component) const noexcept;

    VariantType type = TypeNull;
    Payload payload;
};

}  // namespace korvo::variant
