#include "container.h"

#include <endian.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace korvo::variant {
namespace {

constexpr auto signBit = 1ULL << 63;

/** The first bytes of a text, most significant first, so that ranks order like texts; zeros after its end. */
std::uintptr_t rankOf(std::string_view key) {
    std::uintptr_t bytes = 0;
    if (key.size() >= sizeof bytes)
        std::memcpy(&bytes, key.data(), sizeof bytes);  // a size the compiler knows: no call
    else
        key.copy(reinterpret_cast<char*>(&bytes), sizeof bytes);
    return sizeof bytes == sizeof(std::uint64_t) ? be64toh(bytes)
                                                 : be32toh(static_cast<std::uint32_t>(bytes));
}

/** Less than, equal to or greater than 0, as the key of the entry orders before, with or after @p key. */
int compare(const Members::Entry& entry, std::uintptr_t rank, std::string_view key) {
    if (entry.rank != rank) return entry.rank < rank ? -1 : 1;
    const bool isWhole = key.size() <= sizeof rank && key.size() == entry.member->keySize;
    return isWhole ? 0 : entry.member->key().compare(key);
}

}  // namespace

IndexKey::IndexKey(long long index) {
    auto rest = static_cast<unsigned long long>(index) ^ signBit;
    for (std::size_t i = sizeof bytes; i > 0; rest >>= 8) bytes[--i] = static_cast<char>(rest & 0xff);
}

long long IndexKey::index(std::string_view key) {
    unsigned long long index = 0;
    for (const char byte : key) index = index << 8 | static_cast<unsigned char>(byte);
    return static_cast<long long>(index ^ signBit);
}

Members::~Members() {
    for (const Entry& entry : sorted) destroy(entry.member);
}

Members::Member* Members::create(std::string_view key) {
    void* const memory = ::operator new(sizeof(Member) + key.size());
    key.copy(static_cast<char*>(memory) + sizeof(Member), key.size());
    return ::new (memory) Member{Variant(), key.size()};
}

void Members::destroy(Member* member) noexcept {
    std::destroy_at(member);
    ::operator delete(member);
}

Members::Place Members::locate(std::uintptr_t rank, std::string_view key) const {
    std::size_t low = 0, high = sorted.size();
    // Tries the last one first: texts and declarations mostly come in order.
    for (std::size_t middle = high - 1; low < high; middle = (low + high) / 2) {
        const int order = compare(sorted[middle], rank, key);
        if (order == 0) return {middle, sorted[middle].member};
        if (order < 0)
            low = middle + 1;
        else
            high = middle;
    }
    return {low, nullptr};
}

Variant* Members::find(std::string_view key) const {
    Member* const member = locate(rankOf(key), key).member;
    return member != nullptr ? &member->value : nullptr;
}

Variant& Members::insert(std::string_view key) {
    const std::uintptr_t rank = rankOf(key);
    const auto [position, found] = locate(rank, key);
    if (found != nullptr) return found->value;
    if (sorted.size() == sorted.capacity()) sorted.reserve(std::max<std::size_t>(8, 2 * sorted.size()));
    Member* const member = create(key);
    // Does not throw: there is room.
    sorted.emplace(sorted.begin() + static_cast<std::ptrdiff_t>(position), rank, member);
    return member->value;
}

bool Members::remove(std::string_view key) noexcept {
    const auto [position, member] = locate(rankOf(key), key);
    if (member == nullptr) return false;
    sorted.erase(sorted.begin() + static_cast<std::ptrdiff_t>(position));
    destroy(member);
    return true;
}

long long Container::nextIndex() const {
    if (indexed.entries().empty()) return 0;
    const long long last = IndexKey::index(indexed.entries().back().member->key());
    if (last == std::numeric_limits<long long>::max()) return last;
    return std::max(last + 1, 0LL);
}

void Container::destroy(Container* container) noexcept {
    for (Container* pending = container; pending != nullptr;) {
        Container* const current = pending;
        pending = current->nextPending;
        current->forEachValue([&](Variant& value) {
            if (Container* child = value.members()) {
                child->nextPending = pending;
                pending = child;
                value.payload.container = nullptr;
            }
        });
        delete current;
    }
}

void Container::compact(Container* container) noexcept {
    for (Container* pending = container; pending != nullptr;) {
        Container* const current = pending;
        pending = current->nextPending;
        current->nextPending = nullptr;
        current->named.shrink();
        current->indexed.shrink();
        current->forEachValue([&](Variant& value) {
            if (value.type == TypeString) {
                value.payload.text.shrink_to_fit();
            } else if (Container* child = value.members()) {
                child->nextPending = pending;
                pending = child;
            }
        });
    }
}

Container* Container::copy(const Container& source) {
    std::vector<std::pair<const Container*, Variant*>> nested;
    const auto copyValue = [&](const Variant& from, Variant& to) {
        if (const Container* child = from.members()) nested.emplace_back(child, &to);
        to.copyWithoutMembers(from);
    };
    const auto copyOneLevel = [&](const Container& from) {
        Owner to(new Container, &destroy);
        to->named.copyFrom(from.named, copyValue);
        to->indexed.copyFrom(from.indexed, copyValue);
        return to;
    };
    auto root = copyOneLevel(source);
    while (!nested.empty()) {
        const auto [from, to] = nested.back();
        nested.pop_back();
        to->payload.container = copyOneLevel(*from).release();
    }
    return root.release();
}

}  // namespace korvo::variant
