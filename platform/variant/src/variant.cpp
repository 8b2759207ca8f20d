#include "korvo/variant/variant.h"

#include <charconv>
#include <cmath>
#include <new>
#include <utility>
#include <vector>

#include "container.h"

namespace korvo::variant {
namespace {

/** The nearest integer of @p valueBits bits and perhaps a sign bit, towards 0; modulo 2^64. */
std::uint64_t saturated(double value, int valueBits, bool isSigned) {
    const std::uint64_t largest = ~0ULL >> (64 - valueBits);
    const double bound = 2.0 * static_cast<double>(1ULL << (valueBits - 1));  // largest + 1
    if (std::isnan(value)) return 0;
    if (value >= bound) return largest;
    if (!isSigned) return value > 0 ? static_cast<std::uint64_t>(value) : 0;
    return value <= -bound ? ~largest : static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
}

/** Never destroyed, so it outlives every use. */
template <class T>
union Lasting {
    constexpr Lasting() : value() {}
    ~Lasting() {}
    T value;
};
const Lasting<Variant> nothing;
// Constructed while the library loads, before other globals. Constructed on first use, it could block a child
// that another thread forks meanwhile.
__attribute__((init_priority(101))) const Lasting<std::string> emptyText;

}  // namespace

// Construction and assignment

Variant::Variant(const Variant& other) {
    if (const Container* source = other.members()) {
        payload.container = Container::copy(*source);
        type = other.type;
    } else {
        copyWithoutMembers(other);
    }
}

Variant::Variant(Variant&& other) noexcept { moveFrom(other); }

Variant::Variant(const char* value) {
    if (value != nullptr) holdText(value);
}

Variant::Variant(std::string_view value) { holdText(value); }

Variant::Variant(std::string&& value) noexcept : type(TypeString) {
    ::new (&payload.text) std::string(std::move(value));
}

Variant::~Variant() { Reset(); }

void Variant::Reset() noexcept {
    if (type == TypeString) {
        payload.text.~basic_string();
    } else if (Container* owned = members()) {
        Container::destroy(owned);
    }
    type = TypeNull;
}

/** Makes this a text. The value must own nothing. */
void Variant::holdText(std::string_view value) {
    ::new (&payload.text) std::string(value);
    type = TypeString;
}

/** Copies a value, of a container only the type. This value must own nothing. */
void Variant::copyWithoutMembers(const Variant& other) {
    if (other.type == TypeString) {
        ::new (&payload.text) std::string(other.payload.text);
    } else if (other.type == TypeDouble) {
        payload.real = other.payload.real;
    } else if (other.isContainer()) {
        payload.container = nullptr;
    } else if (other.type != TypeNull) {
        payload.integer = other.payload.integer;
    }
    type = other.type;
}

/** Takes over another value's content and makes that null. This value must own nothing. */
void Variant::moveFrom(Variant& other) noexcept {
    if (other.type == TypeString) {
        ::new (&payload.text) std::string(std::move(other.payload.text));
        other.payload.text.~basic_string();
        type = TypeString;
    } else if (other.isContainer()) {
        payload.container = other.payload.container;
        type = other.type;
    } else {
        copyWithoutMembers(other);
    }
    other.type = TypeNull;
}

Variant& Variant::operator=(const Variant& other) {
    if (type == TypeString && other.type == TypeString) {
        payload.text = other.payload.text;
        return *this;
    }
    Variant copy(other);  // first: other may be a member of this value
    Reset();
    moveFrom(copy);
    return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
    Variant taken(std::move(other));
    Reset();
    moveFrom(taken);
    return *this;
}

Variant& Variant::operator=(const char* value) { return *this = Variant(value); }

Variant& Variant::operator=(std::string_view value) {
    if (type == TypeString)
        payload.text.assign(value);
    else if (type == TypeNull)
        holdText(value);
    else
        *this = Variant(value);  // copied first: it may be a text inside this value
    return *this;
}

Variant& Variant::operator=(std::string&& value) noexcept {
    if (type == TypeString) {
        payload.text = std::move(value);
    } else {
        Reset();
        ::new (&payload.text) std::string(std::move(value));
        type = TypeString;
    }
    return *this;
}

// Containers

void Variant::IsArray(bool array) noexcept {
    if (!isContainer()) {
        Reset();
        payload.container = nullptr;
    }
    type = array ? TypeArray : TypeMap;
}

/** Not inlined, since it is rare: finding a member is faster without it. */
__attribute__((noinline)) Variant& Variant::firstMember(std::string_view key, bool hasIndex) {
    Container::Owner owner(new Container, &Container::destroy);
    Variant& added = owner->of(hasIndex).insert(key);
    if (!isContainer()) IsArray(hasIndex);  // last: the key may be a text inside this value
    payload.container = owner.release();
    return added;
}

Variant& Variant::member(std::string_view key) {
    Container* owned = members();
    return owned != nullptr ? owned->named.insert(key) : firstMember(key, false);
}

Variant& Variant::member(long long index) {
    Container* owned = members();
    if (index == -1) index = owned != nullptr ? owned->nextIndex() : 0;
    return owned != nullptr ? owned->indexed.insert(IndexKey(index)) : firstMember(IndexKey(index), true);
}

const Variant* Variant::find(std::string_view key) const noexcept {
    Container* owned = members();
    return owned != nullptr ? owned->named.find(key) : nullptr;
}

const Variant* Variant::find(long long index) const noexcept {
    Container* owned = members();
    return owned != nullptr ? owned->indexed.find(IndexKey(index)) : nullptr;
}

const Variant& Variant::orNull(const Variant* found) noexcept {
    return found != nullptr ? *found : nothing.value;
}

std::size_t Variant::count(bool hasIndex) const noexcept {
    Container* owned = members();
    return owned != nullptr ? owned->of(hasIndex).entries().size() : 0;
}

bool Variant::removeMember(std::string_view key) noexcept {
    Container* owned = members();
    return owned != nullptr && owned->named.remove(key);
}

bool Variant::removeMember(long long index) noexcept {
    Container* owned = members();
    return owned != nullptr && owned->indexed.remove(IndexKey(index));
}

void Variant::Compact() {
    if (type == TypeString)
        payload.text.shrink_to_fit();
    else if (Container* owned = members())
        Container::compact(owned);
}

Variant& detail::memberAt(const Container& container, std::size_t position, std::string_view& key) {
    Members::Member* const member = container.named.entries()[position].member;
    key = member->key();
    return member->value;
}

Variant& detail::memberAt(const Container& container, std::size_t position, long long& key) {
    Members::Member* const member = container.indexed.entries()[position].member;
    key = IndexKey::index(member->key());
    return member->value;
}

// Key-chain paths

/** The member that one component of a key-chain path names, or null. */
const Variant* Variant::findComponent(std::string_view component) const noexcept {
    if (component.size() < 2 || component.front() != '[' || component.back() != ']') return find(component);
    const std::string_view text = component.substr(1, component.size() - 2);
    long long index = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), index);
    const bool isIndex = error == std::errc() && end == text.data() + text.size();
    return isIndex ? find(index) : find(text);
}

const Variant* Variant::GetKeyChain(VariantType filter, const char* path, bool /*reserved*/) const {
    if (path == nullptr) return nullptr;
    const Variant* node = this;
    std::string_view rest(path);
    for (;;) {
        const std::size_t slash = rest.find('/');
        node = node->findComponent(rest.substr(0, slash));
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

std::uint64_t Variant::toInteger(int valueBits, bool isSigned) const noexcept {
    if (type == TypeDouble) return saturated(payload.real, valueBits, isSigned);
    return isNumber() ? payload.integer : 0;
}

bool Variant::toBool() const noexcept {
    if (type == TypeDouble) return payload.real != 0 && !std::isnan(payload.real);
    return isNumber() && payload.integer != 0;
}

Variant::operator const std::string&() const noexcept {
    return type == TypeString ? payload.text : emptyText.value;
}

namespace {

using ValuePairs = std::vector<std::pair<const Variant*, const Variant*>>;

/** Whether both ranges have the same keys; appends the pairs of values that remain to be compared. */
template <class Iterator>
bool sameKeys(Iterator left, Iterator leftEnd, Iterator right, Iterator rightEnd, ValuePairs& values) {
    for (; left != leftEnd && right != rightEnd; ++left, ++right) {
        const auto& leftElement = *left;
        const auto& rightElement = *right;
        if (leftElement.first != rightElement.first) return false;
        values.emplace_back(&leftElement.second, &rightElement.second);
    }
    return left == leftEnd && right == rightEnd;
}

bool sameReal(double left, double right) { return left == right || (std::isnan(left) && std::isnan(right)); }

/** Whether a double equals an integer, given as its low 64 bits and its sign. */
bool sameNumber(double real, std::uint64_t integer, bool isNegative) {
    const int valueBits = isNegative ? 63 : 64;
    const bool isInRange = isNegative ? real < 0 && real >= -0x1p63 : real >= 0 && real < 0x1p64;
    return isInRange && std::trunc(real) == real && saturated(real, valueBits, isNegative) == integer;
}

}  // namespace

/** Whether an integer is negative. Tags of signed integers have 0x0100, of unsigned ones 0x0200. */
bool Variant::isNegative() const noexcept {
    return (type & 0xff00) == 0x4100 && static_cast<std::int64_t>(payload.integer) < 0;
}

bool Variant::equalsNumber(const Variant& number) const noexcept {
    if (!isNumber()) return false;
    if (type == TypeDouble && number.type == TypeDouble) return payload.real == number.payload.real;
    if (type == TypeDouble) return sameNumber(payload.real, number.payload.integer, number.isNegative());
    if (number.type == TypeDouble) return sameNumber(number.payload.real, payload.integer, isNegative());
    return payload.integer == number.payload.integer && isNegative() == number.isNegative();
}

bool Variant::equalsText(std::string_view text) const noexcept {
    return type == TypeString && payload.text == text;
}

bool operator==(const Variant& leftValue, const Variant& rightValue) {
    ValuePairs pending;
    pending.emplace_back(&leftValue, &rightValue);
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
