#include "korvo/variant/variant.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "container.h"

namespace korvo::variant {
namespace {

/** The double nearest to zero beyond the range of Integer: 2^(number of value bits). */
template <class Integer>
double upperBound() {
    return std::ldexp(1.0, std::numeric_limits<Integer>::digits);
}

template <class Integer>
Integer saturate(double value) {
    if (std::isnan(value)) return 0;
    if (value >= upperBound<Integer>()) return std::numeric_limits<Integer>::max();
    if (value <= static_cast<double>(std::numeric_limits<Integer>::min()))
        return std::numeric_limits<Integer>::min();
    return static_cast<Integer>(value);
}

const std::string& emptyText() {
    static const std::string empty;
    return empty;
}

}  // namespace

// Construction and assignment

Variant::Variant(const Variant& other) : type(TypeNull) {
    if (other.isContainer()) {
        const Container* source = other.members();
        payload.container = source != nullptr ? Container::copy(*source) : nullptr;
        type = other.type;
    } else {
        copyLeaf(other);
    }
}

Variant::Variant(Variant&& other) noexcept : type(TypeNull) {
    moveFrom(other);
}

Variant::Variant(bool value) noexcept : type(TypeBool) {
    payload.integer = value ? 1 : 0;
}

Variant::Variant(signed char value) noexcept : type(TypeInt8) {
    payload.integer = static_cast<std::uint64_t>(static_cast<long long>(value));
}

Variant::Variant(int value) noexcept : type(TypeInt32) {
    payload.integer = static_cast<std::uint64_t>(value);
}

Variant::Variant(unsigned int value) noexcept : type(TypeUInt32) {
    payload.integer = value;
}

Variant::Variant(unsigned short value) noexcept : type(TypeUInt16) {
    payload.integer = value;
}

Variant::Variant(long long value) noexcept : type(TypeInt64) {
    payload.integer = static_cast<std::uint64_t>(value);
}

Variant::Variant(unsigned long long value) noexcept : type(TypeUInt64) {
    payload.integer = value;
}

Variant::Variant(double value) noexcept : type(TypeDouble) {
    payload.real = value;
}

Variant::Variant(const char* value) : type(TypeNull) {
    if (value != nullptr) setText(value);
}

Variant::Variant(const std::string& value) : type(TypeNull) {
    ::new (&payload.text) std::string(value);
    type = TypeString;
}

Variant::Variant(std::string&& value) noexcept : type(TypeString) {
    ::new (&payload.text) std::string(std::move(value));
}

Variant::~Variant() {
    release();
}

void Variant::release() noexcept {
    if (type == TypeString) {
        payload.text.~basic_string();
    } else if (Container* owned = members()) {
        Container::destroy(owned);
    }
    type = TypeNull;
}

/** Becomes a copy of a value that is no container. This value must hold nothing that needs releasing. */
void Variant::copyLeaf(const Variant& other) {
    if (other.type == TypeString) {
        ::new (&payload.text) std::string(other.payload.text);
    } else if (other.type == TypeDouble) {
        payload.real = other.payload.real;
    } else if (other.type != TypeNull) {
        payload.integer = other.payload.integer;
    }
    type = other.type;
}

/** Takes over another value's content, which becomes null. This value must hold nothing to release. */
void Variant::moveFrom(Variant& other) noexcept {
    if (other.type == TypeString) {
        ::new (&payload.text) std::string(std::move(other.payload.text));
        other.payload.text.~basic_string();
        type = TypeString;
    } else if (other.isContainer()) {
        payload.container = other.payload.container;
        type = other.type;
    } else {
        copyLeaf(other);
    }
    other.type = TypeNull;
}

void Variant::setInteger(VariantType newType, std::uint64_t value) noexcept {
    release();
    payload.integer = value;
    type = newType;
}

void Variant::setText(std::string_view value) {
    if (type == TypeString) {
        payload.text.assign(value);
        return;
    }
    std::string text(value);  // before releasing, which may take away what value points into
    release();
    ::new (&payload.text) std::string(std::move(text));
    type = TypeString;
}

Variant& Variant::operator=(const Variant& other) {
    if (type == TypeString && other.type == TypeString) {
        payload.text = other.payload.text;
        return *this;
    }
    Variant copy(other);  // before releasing: other may be a member of this value
    release();
    moveFrom(copy);
    return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
    Variant taken(std::move(other));
    release();
    moveFrom(taken);
    return *this;
}

Variant& Variant::operator=(bool value) noexcept {
    release();
    payload.integer = value ? 1 : 0;
    type = TypeBool;
    return *this;
}

Variant& Variant::operator=(signed char value) noexcept {
    setInteger(TypeInt8, static_cast<std::uint64_t>(static_cast<long long>(value)));
    return *this;
}

Variant& Variant::operator=(int value) noexcept {
    setInteger(TypeInt32, static_cast<std::uint64_t>(value));
    return *this;
}

Variant& Variant::operator=(unsigned int value) noexcept {
    setInteger(TypeUInt32, value);
    return *this;
}

Variant& Variant::operator=(unsigned short value) noexcept {
    setInteger(TypeUInt16, value);
    return *this;
}

Variant& Variant::operator=(long long value) noexcept {
    setInteger(TypeInt64, static_cast<std::uint64_t>(value));
    return *this;
}

Variant& Variant::operator=(unsigned long long value) noexcept {
    setInteger(TypeUInt64, value);
    return *this;
}

Variant& Variant::operator=(double value) noexcept {
    release();
    payload.real = value;
    type = TypeDouble;
    return *this;
}

Variant& Variant::operator=(const char* value) {
    if (value != nullptr) {
        setText(value);
    } else {
        release();
    }
    return *this;
}

Variant& Variant::operator=(const std::string& value) {
    setText(value);
    return *this;
}

Variant& Variant::operator=(std::string&& value) noexcept {
    if (type == TypeString) {
        payload.text = std::move(value);
    } else {
        release();
        ::new (&payload.text) std::string(std::move(value));
        type = TypeString;
    }
    return *this;
}

void Variant::Reset() noexcept {
    release();
}

void Variant::Free() noexcept {
    release();
}

// Containers

void Variant::IsArray(bool array) noexcept {
    if (!isContainer()) {
        release();
        payload.container = nullptr;
    }
    type = array ? TypeArray : TypeMap;
}

/** Adds a member to a value that has none yet. */
template <class Key>
Variant& Variant::firstMember(Key key, VariantType typeWhenNone) {
    // A text may be asked for the member named by that very text, so it lives on until the member is there.
    Variant old;
    if (!isContainer()) {
        old.moveFrom(*this);
        IsArray(typeWhenNone == TypeArray);
    }
    payload.container = new Container;
    return payload.container->insert(key);
}

template <class Key>
Variant& Variant::member(Key key, VariantType typeWhenNone) {
    Container* owned = members();
    return owned != nullptr ? owned->insert(key) : firstMember(key, typeWhenNone);
}

template Variant& Variant::member(std::string_view key, VariantType typeWhenNone);

Variant& Variant::operator[](const char* key) {
    return member(std::string_view(key != nullptr ? key : ""), TypeMap);
}

Variant& Variant::operator[](const std::string& key) {
    return member(std::string_view(key), TypeMap);
}

Variant& Variant::operator[](long long index) {
    if (index == -1) index = members() != nullptr ? members()->nextIndex() : 0;
    return member(index, TypeArray);
}

void Variant::Compact() {
    std::vector<Variant*> pending{this};
    while (!pending.empty()) {
        Variant& value = *pending.back();
        pending.pop_back();
        if (value.type == TypeString) {
            value.payload.text.shrink_to_fit();
        } else if (Container* owned = value.members()) {
            owned->shrink();
            owned->forEachValue([&](Variant& child) {
                if (child.type == TypeString || child.isContainer()) pending.push_back(&child);
            });
        }
    }
}

template <class Key, class Value>
typename MemberIterator<Key, Value>::Element MemberIterator<Key, Value>::operator*() const {
    auto* member = container->entries(Key()).block(block)[offset].member;
    return {member->key(), member->value};
}

template <class Key, class Value>
MemberIterator<Key, Value>& MemberIterator<Key, Value>::operator++() {
    if (++offset == container->entries(Key()).block(block).size()) {
        ++block;
        offset = 0;
    }
    return *this;
}

template class MemberIterator<std::string_view, Variant>;
template class MemberIterator<std::string_view, const Variant>;
template class MemberIterator<long long, Variant>;
template class MemberIterator<long long, const Variant>;

namespace {

template <class Key>
std::size_t endBlock(const Container* container) {
    return container != nullptr ? container->entries(Key()).blockCount() : 0;
}

}  // namespace

Variant::iterator Variant::begin() {
    return {members(), 0};
}

Variant::iterator Variant::end() {
    return {members(), endBlock<std::string_view>(members())};
}

Variant::const_iterator Variant::begin() const {
    return {members(), 0};
}

Variant::const_iterator Variant::end() const {
    return {members(), endBlock<std::string_view>(members())};
}

Variant::num_iterator Variant::num_begin() {
    return {members(), 0};
}

Variant::num_iterator Variant::num_end() {
    return {members(), endBlock<long long>(members())};
}

Variant::const_num_iterator Variant::num_begin() const {
    return {members(), 0};
}

Variant::const_num_iterator Variant::num_end() const {
    return {members(), endBlock<long long>(members())};
}

// Key-chain paths

namespace {

/** The member of @p container that one component of a key-chain path names, or null. */
Variant* findComponent(const Container& container, std::string_view component) {
    if (component.size() < 2 || component.front() != '[' || component.back() != ']')
        return container.find(component);
    const std::string_view text = component.substr(1, component.size() - 2);
    long long index = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), index);
    const bool isIndex = error == std::errc() && end == text.data() + text.size();
    return isIndex ? container.find(index) : container.find(text);
}

}  // namespace

const Variant* Variant::GetKeyChain(VariantType filter, const char* path, bool /*reserved*/) const {
    if (path == nullptr) return nullptr;
    const Variant* node = this;
    std::string_view rest(path);
    for (;;) {
        const std::size_t slash = rest.find('/');
        const Container* container = node->members();
        node = container != nullptr ? findComponent(*container, rest.substr(0, slash)) : nullptr;
        if (node == nullptr) return nullptr;
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    const bool passes = filter == TypeAny || (node->type & filter) == filter;
    return passes ? node : nullptr;
}

Variant* Variant::GetKeyChain(VariantType filter, const char* path, bool reserved) {
    return const_cast<Variant*>(std::as_const(*this).GetKeyChain(filter, path, reserved));
}

// Conversions and comparison

template <class Integer>
Integer Variant::toInteger() const noexcept {
    if (type == TypeDouble) return saturate<Integer>(payload.real);
    if ((type & TypeNumeric) != 0) return static_cast<Integer>(payload.integer);
    if (type == TypeBool) return payload.integer != 0 ? 1 : 0;
    return 0;
}

Variant::operator bool() const noexcept {
    if (type == TypeBool) return payload.integer != 0;
    if (type == TypeDouble) return payload.real != 0 && !std::isnan(payload.real);
    return (type & TypeNumeric) != 0 && payload.integer != 0;
}

Variant::operator signed char() const noexcept {
    return toInteger<signed char>();
}

Variant::operator int() const noexcept {
    return toInteger<int>();
}

Variant::operator unsigned short() const noexcept {
    return toInteger<unsigned short>();
}

Variant::operator long long() const noexcept {
    return toInteger<long long>();
}

Variant::operator double() const noexcept {
    if (type == TypeDouble) return payload.real;
    if (type == TypeUInt64) return static_cast<double>(payload.integer);
    return static_cast<double>(toInteger<long long>());
}

Variant::operator const char*() const noexcept {
    return type == TypeString ? payload.text.c_str() : "";
}

Variant::operator const std::string&() const noexcept {
    return type == TypeString ? payload.text : emptyText();
}

namespace {

using ValuePairs = std::vector<std::pair<const Variant*, const Variant*>>;

/** Whether both ranges have the same keys; appends the pairs of values that are still to be compared. */
template <class Iterator>
bool sameKeys(Iterator left, Iterator leftEnd, Iterator right, Iterator rightEnd, ValuePairs& values) {
    for (; left != leftEnd && right != rightEnd; ++left, ++right) {
        const auto leftElement = *left;
        const auto rightElement = *right;
        if (leftElement.first != rightElement.first) return false;
        values.emplace_back(&leftElement.second, &rightElement.second);
    }
    return left == leftEnd && right == rightEnd;
}

bool sameReal(double left, double right) {
    return left == right || (std::isnan(left) && std::isnan(right));
}

}  // namespace

bool Variant::operator==(const Variant& other) const {
    ValuePairs pending;
    pending.emplace_back(this, &other);
    while (!pending.empty()) {
        const Variant& left = *pending.back().first;
        const Variant& right = *pending.back().second;
        pending.pop_back();
        if (left.type != right.type) return false;
        bool same = true;
        if (left.isContainer()) {
            same = sameKeys(left.begin(), left.end(), right.begin(), right.end(), pending) &&
                   sameKeys(left.num_begin(), left.num_end(), right.num_begin(), right.num_end(), pending);
        } else if (left.type == TypeString) {
            same = left.payload.text == right.payload.text;
        } else if (left.type == TypeDouble) {
            same = sameReal(left.payload.real, right.payload.real);
        } else if (left.type != TypeNull) {
            same = left.payload.integer == right.payload.integer;
        }
        if (!same) return false;
    }
    return true;
}

}  // namespace korvo::variant
