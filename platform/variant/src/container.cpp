#include "container.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <new>

namespace korvo::variant {

MemberPool::~MemberPool() {
    while (chunks != nullptr) {
        Chunk* chunk = chunks;
        chunks = chunk->next;
        ::operator delete(chunk);
    }
}

void MemberPool::reserve(std::size_t size) {
    void* memory = ::operator new(sizeof(Chunk) + size);
    if (chunks != nullptr && free != nullptr) chunks->end = free;
    chunks = ::new (memory) Chunk{chunks, nullptr, 0};
    free = static_cast<char*>(memory) + sizeof(Chunk);
    end = free + size;
}

/** Makes room for @p size bytes, and for more to come: for twice what is in use, within limits. */
void MemberPool::grow(std::size_t size) {
    constexpr std::size_t firstChunk = 4 * sizeof(NamedMember);
    constexpr std::size_t largestChunk = 4096;
    reserve(std::max(size, std::clamp(2 * usedBytes, firstChunk, largestChunk)));
}

/** The next power of two, which keeps the number of sizes small. */
std::size_t MemberPool::roundedLarge(std::size_t size) {
    std::size_t power = 1024;
    while (power < size && power <= std::numeric_limits<std::size_t>::max() / 4) power *= 2;
    return std::max(power, size);
}

void* MemberPool::reuse(std::size_t size) noexcept {
    for (Released** place = &released; *place != nullptr; place = &(*place)->otherSize) {
        Released* found = *place;
        if (found->size != size) continue;
        *place = found->otherSize;
        if (Released* next = found->sameSize) {
            next->otherSize = *place;
            *place = next;
        }
        return found;
    }
    return nullptr;
}

void MemberPool::push(void* memory, std::size_t size) noexcept {
    Released** place = &released;
    while (*place != nullptr && (*place)->size != size) place = &(*place)->otherSize;
    Released* same = *place;
    *place = ::new (memory) Released{same, same != nullptr ? same->otherSize : nullptr, size};
}

void MemberPool::release(void* memory, std::size_t size) noexcept {
    size = rounded(size);
    usedBytes -= size;
    push(memory, size);
}

void MemberPool::shrink() {
    if (released == nullptr) return;
    std::vector<Chunk*> sorted;
    for (Chunk* chunk = chunks; chunk != nullptr; chunk = chunk->next) sorted.push_back(chunk);
    if (chunks != nullptr && free != nullptr) chunks->end = free;
    std::sort(sorted.begin(), sorted.end(), std::less<>());
    const auto chunkOf = [&](void* memory) {
        return *std::prev(std::upper_bound(sorted.begin(), sorted.end(), memory, std::less<void*>()));
    };
    const auto isUnused = [](const Chunk* chunk) {
        return chunk->releasedBytes ==
               static_cast<std::size_t>(chunk->end - reinterpret_cast<const char*>(chunk + 1));
    };
    // One list of all sizes.
    std::vector<Released*> all;
    for (Released* size = released; size != nullptr; size = size->otherSize) {
        for (Released* memory = size; memory != nullptr; memory = memory->sameSize) all.push_back(memory);
    }
    for (Released* memory : all) chunkOf(memory)->releasedBytes += memory->size;
    released = nullptr;
    for (Released* memory : all) {
        if (!isUnused(chunkOf(memory))) push(memory, memory->size);
    }
    if (isUnused(chunks)) free = end = nullptr;
    for (Chunk** place = &chunks; *place != nullptr;) {
        Chunk* chunk = *place;
        if (isUnused(chunk)) {
            *place = chunk->next;
            ::operator delete(chunk);
        } else {
            chunk->releasedBytes = 0;
            place = &chunk->next;
        }
    }
}

NamedMember* Container::newMember(std::string_view key) {
    const std::size_t size = NamedMember::sizeFor(key.size());
    char* const memory = static_cast<char*>(pool.allocate(size));
    if (!key.empty()) {
        std::memset(memory + size - sizeof(NamedMember::KeyWord), 0, sizeof(NamedMember::KeyWord));
        std::memcpy(memory + sizeof(NamedMember), key.data(), key.size());
    }
    return ::new (memory) NamedMember{Variant(), key.size()};
}

IndexedMember* Container::newMember(long long index) {
    return ::new (pool.allocate(sizeof(IndexedMember))) IndexedMember{Variant(), index};
}

// Apart from insertInto(), so that finding a member needs next to no stack.

/** Adds a member whose key is greater than all others. */
template <class Entries, class Key, class Rank>
__attribute__((noinline)) Variant& Container::append(Entries& entries, Key key, Rank rank) {
    auto* member = newMember(key);
    entries.append({rank, member});
    return member->value;
}

/** Adds a member whose key is not there. */
template <class Entries, class Key>
__attribute__((noinline)) Variant& Container::add(Entries& entries, Key key) {
    const typename Entries::Key wanted(key);
    const auto position = entries.lowerBound(wanted);
    auto* member = newMember(key);
    entries.insert(position, {wanted.rank(), member});
    return member->value;
}

template <class Entries, class Key>
Variant& Container::insertInto(Entries& entries, Key key) {
    const typename Entries::Key wanted(key);
    // Texts and declarations mostly come in order.
    if (entries.endsBefore(wanted)) return append(entries, key, wanted.rank());
    const auto* entry = entries.find(wanted);
    return entry != nullptr ? entry->member->value : add(entries, key);
}

Variant& Container::insert(std::string_view key) { return insertInto(named, key); }

Variant& Container::insert(long long index) { return insertInto(indexed, index); }

template <class Entries, class Key>
bool Container::removeFrom(Entries& entries, Key key) noexcept {
    const typename Entries::Key wanted(key);
    const auto position = entries.lowerBound(wanted);
    const auto* entry = entries.at(position, wanted);
    if (entry == nullptr) return false;
    auto* member = entry->member;
    entries.erase(position);
    const std::size_t size = member->size();
    std::destroy_at(member);  // the key may have been in there
    pool.release(member, size);
    return true;
}

bool Container::remove(std::string_view key) noexcept { return removeFrom(named, key); }

bool Container::remove(long long index) noexcept { return removeFrom(indexed, index); }

Variant* Container::find(std::string_view key) const {
    const NamedEntry* entry = named.find(NamedEntry::Key(key));
    return entry != nullptr ? &entry->member->value : nullptr;
}

Variant* Container::find(long long index) const {
    const IndexedEntry* entry = indexed.find(IndexedEntry::Key(index));
    return entry != nullptr ? &entry->member->value : nullptr;
}

long long Container::nextIndex() const {
    if (indexed.size() == 0) return 0;
    const long long last = indexed.last().index;
    if (last == std::numeric_limits<long long>::max()) return last;
    return std::max(last + 1, 0LL);
}

void Container::shrink() {
    named.shrink();
    indexed.shrink();
    pool.shrink();
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
            value.Variant::~Variant();
        });
        delete current;
    }
}

/** A container that is still to be copied, and the value that is to hold the copy. */
struct Container::NestedCopy {
    const Container* source;
    Variant* target;
};

Container::Owner Container::copyOneLevel(const Container& source, std::vector<NestedCopy>& nested) {
    Owner target(new Container);
    if (source.pool.used() > 0) target->pool.reserve(source.pool.used());
    const auto copyValue = [&](const Variant& from, Variant& to) {
        if (const Container* child = from.members()) {
            nested.push_back({child, &to});
            to.type = from.type;
            to.payload.container = nullptr;
        } else {
            to.copyLeaf(from);
        }
    };
    target->named.copyFrom(source.named, [&](const NamedEntry& entry) {
        NamedMember* member = target->newMember(entry.member->key());
        copyValue(entry.member->value, member->value);
        return NamedEntry{entry.prefix, member};
    });
    target->indexed.copyFrom(source.indexed, [&](const IndexedEntry& entry) {
        IndexedMember* member = target->newMember(entry.index);
        copyValue(entry.member->value, member->value);
        return IndexedEntry{entry.index, member};
    });
    return target;
}

Container* Container::copy(const Container& source) {
    std::vector<NestedCopy> nested;
    Owner target = copyOneLevel(source, nested);
    while (!nested.empty()) {
        const NestedCopy next = nested.back();
        nested.pop_back();
        next.target->payload.container = copyOneLevel(*next.source, nested).release();
    }
    return target.release();
}

}  // namespace korvo::variant
