#include "container.h"

#include <algorithm>
#include <cstring>
#include <limits>
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
    chunks = ::new (memory) Chunk{chunks};
    free = static_cast<char*>(memory) + sizeof(Chunk);
    end = free + size;
}

/** Makes room for @p size bytes more, and doubles what there is as far as that is not too much. */
void MemberPool::grow(std::size_t size) {
    constexpr std::size_t firstChunk = 4 * sizeof(NamedMember);
    constexpr std::size_t largestChunk = 4096;
    reserve(std::max(size, std::clamp(usedBytes, firstChunk, largestChunk)));
}

NamedMember* Container::newMember(std::string_view key) {
    void* memory = pool.allocate(sizeof(NamedMember) + key.size());
    if (!key.empty()) std::memcpy(static_cast<char*>(memory) + sizeof(NamedMember), key.data(), key.size());
    return ::new (memory) NamedMember{Variant(), key.size()};
}

NumMember* Container::newMember(long long index) {
    return ::new (pool.allocate(sizeof(NumMember))) NumMember{Variant(), index};
}

Variant& Container::insert(std::string_view key) {
    const NamedEntry::Key wanted(key);
    const auto position = named.lowerBound(wanted);
    if (const NamedEntry* entry = named.at(position, wanted)) return entry->member->value;
    NamedMember* member = newMember(key);
    named.insert(position, {wanted.prefix, member});
    return member->value;
}

Variant& Container::insert(long long index) {
    const auto position = numbered.lowerBound(index);
    if (const NumEntry* entry = numbered.at(position, index)) return entry->member->value;
    NumMember* member = newMember(index);
    numbered.insert(position, {index, member});
    return member->value;
}

Variant* Container::find(std::string_view key) const {
    const NamedEntry* entry = named.find(NamedEntry::Key(key));
    return entry != nullptr ? &entry->member->value : nullptr;
}

Variant* Container::find(long long index) const {
    const NumEntry* entry = numbered.find(index);
    return entry != nullptr ? &entry->member->value : nullptr;
}

long long Container::nextIndex() const {
    if (numbered.blockCount() == 0) return 0;
    const long long last = numbered.block(numbered.blockCount() - 1).back().index;
    if (last == std::numeric_limits<long long>::max()) return last;
    return std::max(last + 1, 0LL);
}

void Container::shrink() {
    named.shrink();
    numbered.shrink();
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
    target->numbered.copyFrom(source.numbered, [&](const NumEntry& entry) {
        NumMember* member = target->newMember(entry.index);
        copyValue(entry.member->value, member->value);
        return NumEntry{entry.index, member};
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
