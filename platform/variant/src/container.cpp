#include "container.h"

#include <endian.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>

namespace korvo::variant {
namespace {

/** The first bytes of a text, most significant first, so that ranks order like texts; zeros after its end. */
std::uintptr_t rankOf(std::string_view key) {
    std::uintptr_t bytes = 0;
    key.copy(reinterpret_cast<char*>(&bytes), sizeof bytes);
    return sizeof bytes == sizeof(std::uint64_t) ? be64toh(bytes)
                                                 : be32toh(static_cast<std::uint32_t>(bytes));
}

long long rankOf(long long index) { return index; }

}  // namespace

template <class Key>
Members<Key>::~Members() {
    for (const Entry& entry : sorted) destroy(entry.member);
}

template <class Key>
typename Members<Key>::Member* Members<Key>::create(Key key) {
    if constexpr (std::is_same<Key, std::string_view>::value) {
        void* const memory = ::operator new(sizeof(Member) + key.size());
        char* const text = static_cast<char*>(memory) + sizeof(Member);
        key.copy(text, key.size());
        return ::new (memory) Member{Variant(), {text, key.size()}};
    } else {
        return ::new (::operator new(sizeof(Member))) Member{Variant(), key};
    }
}

template <class Key>
void Members<Key>::destroy(Member* member) noexcept {
    std::destroy_at(member);
    ::operator delete(member);
}

template <class Key>
typename Members<Key>::Place Members<Key>::locate(Key key) const {
    const auto rank = rankOf(key);
    const auto end = sorted.end();
    // Texts and declarations mostly come in order.
    if (sorted.empty() || isBefore(sorted.back(), rank, key)) return {end, rank, false};
    const auto ranksBefore = [](const Entry& entry, Rank wanted) { return entry.rank < wanted; };
    auto position = std::lower_bound(sorted.begin(), end, rank, ranksBefore);
    if (position->rank != rank) return {position, rank, false};
    if (position->member->key == key) return {position, rank, true};
    // Other texts share these first bytes.
    const auto isLess = [rank](const Entry& entry, Key wanted) { return isBefore(entry, rank, wanted); };
    position = std::lower_bound(position, end, key, isLess);
    return {position, rank, position != end && position->member->key == key};
}

template <class Key>
Variant* Members<Key>::find(Key key) const {
    const Place place = locate(key);
    return place.taken ? &place.position->member->value : nullptr;
}

template <class Key>
Variant& Members<Key>::insert(Key key) {
    // Not one, two and four entries first.
    if (sorted.capacity() == 0) sorted.reserve(8);
    const Place place = locate(key);
    if (place.taken) return place.position->member->value;
    std::unique_ptr<Member, decltype(&destroy)> member(create(key), &destroy);
    sorted.insert(place.position, {place.rank, member.get()});
    return member.release()->value;
}

template <class Key>
bool Members<Key>::remove(Key key) noexcept {
    const Place place = locate(key);
    if (!place.taken) return false;
    Member* const member = place.position->member;
    sorted.erase(place.position);
    destroy(member);
    return true;
}

template <class Key>
template <class CopyValue>
void Members<Key>::copyFrom(const Members& source, CopyValue copyValue) {
    sorted.reserve(source.sorted.size());
    for (const Entry& entry : source.sorted) {
        Member* const member = create(entry.member->key);
        sorted.push_back({entry.rank, member});
        copyValue(entry.member->value, member->value);
    }
}

template class Members<std::string_view>;
template class Members<long long>;

long long Container::nextIndex() const {
    if (Indexed::entries().empty()) return 0;
    const long long last = Indexed::entries().back().rank;
    if (last == std::numeric_limits<long long>::max()) return last;
    return std::max(last + 1, 0LL);
}

void Container::destroy(Container* container) noexcept {
    Container* pending = container;
    while (pending != nullptr) {
        Container* current = pending;
        pending = current->nextToDestroy;
        current->forEachValue([&](Variant& value) {
            if (Container* child = value.members()) {
                child->nextToDestroy = pending;
                pending = child;
                value.payload.container = nullptr;
            }
        });
        delete current;
    }
}

/** A container that is still to be copied, and the value that is to hold the copy. */
struct Container::NestedCopy {
    const Container* source;
    Variant* target;
};

Container* Container::copy(const Container& source) {
    std::vector<NestedCopy> nested;
    const auto copyValue = [&](const Variant& from, Variant& to) {
        if (const Container* child = from.members()) {
            nested.push_back({child, &to});
            to.type = from.type;
            to.payload.container = nullptr;
        } else {
            to.copyLeaf(from);
        }
    };
    const auto copyOneLevel = [&](const Container& from) {
        std::unique_ptr<Container, decltype(&destroy)> to(new Container, &destroy);
        to->Named::copyFrom(from, copyValue);
        to->Indexed::copyFrom(from, copyValue);
        return to;
    };
    auto root = copyOneLevel(source);
    while (!nested.empty()) {
        const NestedCopy next = nested.back();
        nested.pop_back();
        next.target->payload.container = copyOneLevel(*next.source).release();
    }
    return root.release();
}

}  // namespace korvo::variant
