/**
 * @file
 * Variant, the dynamically typed value in which the device's libraries exchange everything: a null, a
 * boolean, an integer, a double, a string, or a container of further values.
 *
 * Ownership: a Variant owns its content. Copies are deep; a moved-from Variant is null.
 *
 * References: `operator[]` and GetKeyChain() give references into the container. They stay valid until the
 * container that holds the member is assigned to, reset, freed or destroyed; adding members does not disturb
 * them. Moving or swapping a container takes the members along, and references to them with it.
 *
 * Threads: distinct values may be used from distinct threads. One value may be read by several threads at
 * once through const operations; any other operation needs it alone.
 *
 * Errors: the only exception that passes through is std::bad_alloc, and it leaves every value valid; an
 * assignment that fails so leaves its target as it was.
 *
 * Conversions never fail and have no undefined behaviour:
 *
 * | from \ to      | integer                         | double            | bool           | text         |
 * |----------------|---------------------------------|-------------------|----------------|--------------|
 * | integer        | the value modulo 2^n            | nearest           | whether not 0  | empty        |
 * | double         | towards 0; saturates, NaN is 0  | the value         | not 0, not NaN | empty        |
 * | boolean        | 1 or 0                          | 1 or 0            | the value      | empty        |
 * | string         | 0                               | 0                 | false          | the string   |
 * | anything else  | 0                               | 0                 | false          | empty        |
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

/** Marks what the variant library exports. */
#define KORVO_VARIANT_EXPORT __attribute__((visibility("default")))

/** Marks what it does not export although its class is. */
#define KORVO_VARIANT_PRIVATE __attribute__((visibility("hidden")))

namespace korvo::variant {

/**
 * The type tag of a value: a set of category bits. A value belongs to a category when `(type & CATEGORY) ==
 * CATEGORY`; test for TypeDouble before TypeNumeric, which doubles carry too.
 */
enum VariantType : std::uint16_t {
    TypeNull = 0x0001,
    TypeMap = 0x1010,       ///< container, map form
    TypeTypedMap = 0x1011,  ///< also map form; never produced
    TypeArray = 0x1012,     ///< container, array form
    TypeString = 0x100e,
    TypeNumeric = 0x4000,  ///< the category of all integers and of double; no value has this very tag
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

class Container;
class Variant;

/**
 * Walks the members of a value that have keys of one kind, in ascending order. Made by Variant::begin() and
 * Variant::num_begin(). @p Key is std::string_view or long long, @p Value is Variant or const Variant.
 */
template <class Key, class Value>
class KORVO_VARIANT_EXPORT MemberIterator {
  public:
    /** A member as the iterator shows it. */
    struct Element {
        Key first;      ///< the key; a text key is a view that lives as long as the member
        Value& second;  ///< the member
        const Element* operator->() const { return this; }
    };

    using iterator_category = std::input_iterator_tag;
    using value_type = Element;
    using difference_type = std::ptrdiff_t;
    using pointer = Element;
    using reference = Element;

    Element operator*() const;
    Element operator->() const { return **this; }
    MemberIterator& operator++();
    bool operator==(const MemberIterator& other) const {
        return block == other.block && offset == other.offset;
    }
    bool operator!=(const MemberIterator& other) const { return !(*this == other); }

  private:
    friend class Variant;
    KORVO_VARIANT_PRIVATE MemberIterator(const Container* owner, std::size_t firstBlock)
        : container(owner), block(firstBlock) {}

    const Container* container;  ///< null when the value has no members
    std::size_t block;
    std::size_t offset = 0;
};

/** The dynamically typed value; see the top of this file for what holds of all its operations. */
class KORVO_VARIANT_EXPORT Variant {
  public:
    using iterator = MemberIterator<std::string_view, Variant>;
    using const_iterator = MemberIterator<std::string_view, const Variant>;
    using num_iterator = MemberIterator<long long, Variant>;
    using const_num_iterator = MemberIterator<long long, const Variant>;

    Variant() noexcept : type(TypeNull) {}
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;
    Variant(bool value) noexcept;
    Variant(signed char value) noexcept;
    Variant(int value) noexcept;
    Variant(unsigned int value) noexcept;
    Variant(unsigned short value) noexcept;
    Variant(long long value) noexcept;
    Variant(unsigned long long value) noexcept;
    Variant(double value) noexcept;
    Variant(const char* value);  ///< a copy of the text; a null pointer gives the null value
    Variant(const std::string& value);
    Variant(std::string&& value) noexcept;
    virtual ~Variant();

    /** @name Assignment
     * Replaces the value, whatever it held. The source may be the value itself, one of its members, or a text
     * inside of it. Only into its own member a value must not be moved.
     * @{ */
    Variant& operator=(const Variant& other);
    Variant& operator=(Variant&& other) noexcept;
    Variant& operator=(bool value) noexcept;
    Variant& operator=(signed char value) noexcept;
    Variant& operator=(int value) noexcept;
    Variant& operator=(unsigned int value) noexcept;
    Variant& operator=(unsigned short value) noexcept;
    Variant& operator=(long long value) noexcept;
    Variant& operator=(unsigned long long value) noexcept;
    Variant& operator=(double value) noexcept;
    Variant& operator=(const char* value);  ///< a null pointer gives the null value
    Variant& operator=(const std::string& value);
    Variant& operator=(std::string&& value) noexcept;
    /** @} */

    /** Back to the null value; everything held is released. */
    void Reset() noexcept;

    /** Releases the content, as Reset() does. */
    void Free() noexcept;

    /**
     * Marks the value as an array (true) or as a map (false). A container keeps its members; any other value
     * becomes an empty container.
     */
    void IsArray(bool array) noexcept;

    /** @name Members
     * The member under a key, added as a null value when it is missing. A value that is no container first
     * becomes an empty one: a map for a text key, an array for an index.
     *
     * Indices are signed 64-bit numbers; an unsigned one must be below 2^63. The index -1 appends: it stands for the index after the last one, at least 0. When the last index is
     * the largest there is, -1 stands for that.
     * @{ */
    Variant& operator[](const char* key);
    Variant& operator[](const std::string& key);
    Variant& operator[](long long index);
    template <
        class Integer,
        std::enable_if_t<std::is_integral<Integer>::value && !std::is_same<Integer, bool>::value, int> = 0>
    Variant& operator[](Integer index) {
        return (*this)[static_cast<long long>(index)];
    }
    /** @} */

    /** @name Iteration
     * Over the members with text keys in ascending byte order, and over those with an index in ascending
     * order. Both ranges are empty for a value that is no container. An element has `first`, the key, and
     * `second`, the member. Adding a member to this value ends the validity of its iterators.
     * @{ */
    iterator begin();
    iterator end();
    const_iterator begin() const;
    const_iterator end() const;
    num_iterator num_begin();
    num_iterator num_end();
    const_num_iterator num_begin() const;
    const_num_iterator num_end() const;
    /** @} */

    /**
     * Finds a value below this one; creates nothing.
     *
     * @param filter    what the value found must be: its type AND @p filter must equal @p filter. TypeAny passes
     *                  all, TypeMap arrays too
     * @param path      components separated by "/". A component names the member with exactly that text key, also
     *                  when it is empty or all digits. "[n]" with an integer n names the member with that index,
     *                  "[text]" with anything else the member with the text key between the brackets
     * @param reserved  not used
     * @return the value, or null when there is none or it does not pass the filter
     */
    Variant* GetKeyChain(VariantType filter, const char* path, bool reserved);
    const Variant* GetKeyChain(VariantType filter, const char* path, bool reserved) const;

    /** @name Key=value text
     * One `key=value` per line, split at the first "=". The key is a path of text keys with dots between
     * them: the line `a.b=5` is member b of member a. A line ends with a line feed, before which one carriage
     * return does not count. Nothing is trimmed. Blank lines and lines that begin with "#" are skipped. Of a
     * repeated key the last value counts.
     * @{ */

    /**
     * Replaces the value by the tree that @p text describes, a map.
     *
     * Refused, with false and the value as it was, is what ToKVP() could not give back: a line that is not
     * blank and has no "=", a key that has both a value and keys below it, a key of more than 64 components,
     * a value with a carriage return at its end.
     *
     * @param text             the text; any bytes
     * @param reserved         not used
     * @param valuesAsStrings  true holds every value as a string. False holds a value as a number when it is
     *                         exactly the text that ToKVP() writes for that number (7, -3, 2.5; not 007, 1.50 or
     *                         1e3), as the first of int, long long, unsigned long long and double that fits
     * @param reserved2        not used
     */
    bool FromKVP(const std::string& text, bool reserved, bool valuesAsStrings, bool reserved2);

    /** The same for the text of the file at @p path; also false, with errno set, when it cannot be read. */
    bool FromKVPFile(const std::string& path, bool reserved, bool valuesAsStrings, bool reserved2);

    /**
     * Writes the tree as key=value text into @p text, replacing what it held.
     *
     * Members with an index come first, in ascending order, under their decimal index; then those with text
     * keys. Booleans are written as 1 and 0, doubles in the shortest form that reads back the same, with ".0"
     * where that would look like an integer. Null members and empty containers have no line.
     *
     * Refused, with false and @p text as it was, is what would not read back as the same tree: a key that holds
     * "=", "." or a line feed, a line that would begin with "#", a value with a line feed in it or a carriage
     * return at its end, an index and a text key that look the same, more than 64 levels, a value that is no
     * container; with separators of one's own also a text that holds them.
     *
     * @param text           receives the text
     * @param keySeparator   between key and value, normally "="
     * @param lineSeparator  after each line, normally "\n"
     */
    bool ToKVP(std::string& text, const std::string& keySeparator, const std::string& lineSeparator) const;
    /** @} */

    /** Gives back memory that growing has left spare. The value stays equal to what it was. */
    void Compact();

    /** @name Conversions (table at the top of this file)
     * @{ */
    operator VariantType() const noexcept { return type; }
    operator bool() const noexcept;
    operator signed char() const noexcept;
    operator int() const noexcept;
    operator unsigned short() const noexcept;
    operator long long() const noexcept;
    operator double() const noexcept;
    operator const char*() const noexcept;  ///< valid until the value is changed; never null
    operator const std::string&() const noexcept;
    /** @} */

    /**
     * Deep equality of type and value: the integer 1 and the boolean true differ, and so do 1 as int and as
     * long long. A NaN equals a NaN, so that a copy always equals its original.
     */
    bool operator==(const Variant& other) const;
    bool operator!=(const Variant& other) const { return !(*this == other); }

  private:
    friend class Container;
    friend class KeyValueReader;
    friend class KeyValueWriter;

    union Payload {
        Payload() noexcept : integer(0) {}
        ~Payload() {}
        std::uint64_t
            integer;  ///< of every width, sign-extended where the type is signed; 1 or 0 for a boolean
        double real;
        std::string text;
        Container* container;  ///< null while the container is empty
    };

    bool isContainer() const noexcept { return type == TypeMap || type == TypeArray; }
    template <class Integer>
    KORVO_VARIANT_PRIVATE Integer toInteger() const noexcept;

    KORVO_VARIANT_PRIVATE void release() noexcept;
    KORVO_VARIANT_PRIVATE void moveFrom(Variant& other) noexcept;
    KORVO_VARIANT_PRIVATE void copyLeaf(const Variant& other);
    KORVO_VARIANT_PRIVATE void setInteger(VariantType newType, std::uint64_t value) noexcept;
    KORVO_VARIANT_PRIVATE void setText(std::string_view value);
    Container* members() const noexcept { return isContainer() ? payload.container : nullptr; }
    template <class Key>
    KORVO_VARIANT_PRIVATE Variant& member(Key key, VariantType typeWhenNone);
    template <class Key>
    KORVO_VARIANT_PRIVATE Variant& firstMember(Key key, VariantType typeWhenNone);

    VariantType type;
    Payload payload;
};

}  // namespace korvo::variant
