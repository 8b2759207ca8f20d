#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "korvo/variant/variant.h"
#include "sorted_index.h"

namespace korvo::variant {

/** A member with a text key; the key's bytes follow it in memory. */
struct NamedMember {
    Variant value;
    std::size_t keyLength;

    std::string_view key() const { return {reinterpret_cast<const char*>(this + 1), keyLength}; }
};

/** A member with an index. */
struct NumMember {
    Variant value;
    long long index;

    long long key() const { return index; }
};

/** An entry of the index over text keys. It holds the key's first bytes, which decide most comparisons. */
struct NamedEntry {
    struct Key {
        explicit Key(std::string_view name) : prefix(0), text(name) {
            if (name.size() >= sizeof prefix) {
                std::memcpy(&prefix, name.data(), sizeof prefix);
                prefix = sizeof prefix == 8 ? be64toh(prefix) : be32toh(static_cast<std::uint32_t>(prefix));
            } else if (!name.empty()) {
                for (const char character : name)
                    prefix = prefix << 8 | static_cast<unsigned char>(character);
                prefix <<= 8 * (sizeof prefix - name.size());
            }
        }

        std::uintptr_t prefix;  ///< the first bytes, most significant first, zeros behind a short key
        std::string_view text;
    };

    std::uintptr_t prefix;
    NamedMember* member;

    static bool less(const NamedEntry& entry, const Key& key) {
        return entry.prefix != key.prefix ? entry.prefix < key.prefix : entry.member->key() < key.text;
    }
    static bool equals(const NamedEntry& entry, const Key& key) {
        return entry.prefix == key.prefix && entry.member->key() == key.text;
    }
};

/** An entry of the index over numbers. */
struct NumEntry {
    using Key = long long;

    long long index;
    NumMember* member;

    static bool less(const NumEntry& entry, Key key) { return entry.index < key; }
    static bool equals(const NumEntry& entry, Key key) { return entry.index == key; }
};

/**
 * The memory of one container's members. A container gives members back only all at once, so they are carved
 * one after the other from chunks that double in size, and never move.
 */
class MemberPool {
  public:
    MemberPool() = default;
    MemberPool(const MemberPool&) = delete;
    MemberPool& operator=(const MemberPool&) = delete;
    ~MemberPool();

    /** Memory for @p size bytes, aligned for a member. */
    void* allocate(std::size_t size) {
        size = (size + alignof(Chunk) - 1) / alignof(Chunk) * alignof(Chunk);
        if (size > static_cast<std::size_t>(end - free)) grow(size);
        void* memory = free;
        free += size;
        usedBytes += size;
        return memory;
    }

    /** Asks for one chunk that @p size bytes fit into. */
    void reserve(std::size_t size);

    /** The bytes handed out. */
    std::size_t used() const { return usedBytes; }

  private:
    struct alignas(NumMember) Chunk {
        Chunk* next;
    };

    void grow(std::size_t size);

    Chunk* chunks = nullptr;
    char* free = nullptr;
    char* end = nullptr;
    std::size_t usedBytes = 0;
};

/** The members of one Variant that is a map or an array. */
class Container {
  public:
    Container() = default;
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

    /**
     * Destroys a container with all that is below it, without recursion: a tree may be deeper than the stack.
     */
    static void destroy(Container* container) noexcept;

    /** A deep copy, likewise without recursion. */
    static Container* copy(const Container& source);

    /** The member under a key, added as null when missing. */
    Variant& insert(std::string_view key);
    Variant& insert(long long index);

    /** The member under a key, null when missing. */
    Variant* find(std::string_view key) const;
    Variant* find(long long index) const;

    /** The index that appending uses. */
    long long nextIndex() const;

    /** Calls @p visit with each member's value. */
    template <class Visit>
    void forEachValue(Visit visit) const {
        named.forEach([&](const NamedEntry& entry) { visit(entry.member->value); });
        numbered.forEach([&](const NumEntry& entry) { visit(entry.member->value); });
    }

    void shrink();

    const SortedIndex<NamedEntry>& entries(std::string_view) const { return named; }
    const SortedIndex<NumEntry>& entries(long long) const { return numbered; }

  private:
    struct Destroyer {
        void operator()(Container* container) const noexcept { destroy(container); }
    };
    using Owner = std::unique_ptr<Container, Destroyer>;
    struct NestedCopy;

    ~Container() = default;
    NamedMember* newMember(std::string_view key);
    NumMember* newMember(long long index);
    static Owner copyOneLevel(const Container& source, std::vector<NestedCopy>& nested);

    SortedIndex<NamedEntry> named;
    SortedIndex<NumEntry> numbered;
    MemberPool pool;
    Container* nextToDestroy = nullptr;
};

}  // namespace korvo::variant
