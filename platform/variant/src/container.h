/**
 * @file The members of a value, in a container of our own. It has to earn that: two std::maps in its place
 * were 390 lines and 9 KB of ARM code less when that was last tried, before members could be removed. A tree
 * of 1000 texts that are in std::maps takes 1.9 times as long to build, 1.5 times to copy and 1.9 times to
 * look every text up (`scripts/bench`, the rows "value: ..." and there std::map), because a map asks for
 * memory for each key and each member.
 */
#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "korvo/variant/variant.h"
#include "sorted_entries.h"

namespace korvo::variant {

/** A member with a text key; the key's bytes follow it in memory, with zeros up to the next word. */
struct NamedMember {
    using KeyWord = std::uint64_t;

    Variant value;
    std::size_t keyLength;

    std::string_view key() const { return {reinterpret_cast<const char*>(this + 1), keyLength}; }
    static std::size_t sizeFor(std::size_t keyLength) {
        return sizeof(NamedMember) + (keyLength + sizeof(KeyWord) - 1) / sizeof(KeyWord) * sizeof(KeyWord);
    }
    std::size_t size() const { return sizeFor(keyLength); }
};

/** A member with an index. */
struct IndexedMember {
    Variant value;
    long long index;

    long long key() const { return index; }
    std::size_t size() const { return sizeof *this; }
};

/** An entry for a text key. It holds the key's first bytes, which decide most comparisons. */
struct NamedEntry {
    struct Key {
        explicit Key(std::string_view name) : prefix(prefixOf(name)), text(name) {}
        std::uintptr_t rank() const { return prefix; }

        std::uintptr_t prefix;  ///< the first bytes, most significant first, zeros after a short key
        std::string_view text;

      private:
        template <class Word>
        static Word load(const char* bytes) {
            Word word;
            std::memcpy(&word, bytes, sizeof word);
            return sizeof word == 8 ? be64toh(word) : be32toh(static_cast<std::uint32_t>(word));
        }
        static std::uintptr_t prefixOf(std::string_view name) {
            const std::size_t size = name.size();
            if (size >= sizeof prefix) return load<std::uintptr_t>(name.data());
            if (size > sizeof(std::uint32_t)) {
                // The first four bytes and the last four, which overlap.
                const std::uint64_t first = load<std::uint32_t>(name.data());
                const std::uint64_t last = load<std::uint32_t>(name.data() + size - sizeof(std::uint32_t));
                return static_cast<std::uintptr_t>(first << 32 | (last << (64 - 8 * size) & 0xffffffff));
            }
            std::uintptr_t bytes = 0;
            for (const char byte : name) bytes = bytes << 8 | static_cast<unsigned char>(byte);
            return size == 0 ? 0 : bytes << 8 * (sizeof bytes - size);
        }
    };

    std::uintptr_t prefix;
    NamedMember* member;

    std::uintptr_t rank() const { return prefix; }
    static bool less(const NamedEntry& entry, const Key& key) {
        const std::size_t length = entry.member->keyLength;
        // Of keys that end within equal prefixes, the longer one has zeros at its end.
        if (length <= sizeof prefix || key.text.size() <= sizeof prefix) return length < key.text.size();
        return entry.member->key().substr(sizeof prefix) < key.text.substr(sizeof prefix);
    }
    static bool equals(const NamedEntry& entry, const Key& key) {
        const std::size_t length = key.text.size();
        return entry.member->keyLength == length &&
               (length <= sizeof prefix || sameRest(entry.member->key().data(), key.text.data(), length));
    }

  private:
    /** Whether two texts that are longer than the prefix are the same after it. */
    static bool sameRest(const char* left, const char* right, std::size_t length) {
        // Mostly what is left is no longer than a prefix again; then its last bytes are compared, which may
        // overlap with the prefix.
        if (length > 2 * sizeof prefix)
            return std::memcmp(left + sizeof prefix, right + sizeof prefix, length - sizeof prefix) == 0;
        return std::memcmp(left + length - sizeof prefix, right + length - sizeof prefix, sizeof prefix) == 0;
    }
};

/** An entry for an index. */
struct IndexedEntry {
    struct Key {
        explicit Key(long long wanted) : index(wanted) {}
        long long rank() const { return index; }

        long long index;
    };

    long long index;
    IndexedMember* member;

    long long rank() const { return index; }
    static bool less(const IndexedEntry& /*entry*/, const Key& /*key*/) { return false; }
    static bool equals(const IndexedEntry& /*entry*/, const Key& /*key*/) { return true; }
};

/**
 * The memory of one container's members, which never move. They are carved one after the other from chunks
 * that double in size. What a removed member took waits for one of the same size; the sizes are few, so what
 * all of them take stays in proportion to the most that was ever there at once.
 */
class MemberPool {
  public:
    MemberPool() = default;
    MemberPool(const MemberPool&) = delete;
    MemberPool& operator=(const MemberPool&) = delete;
    ~MemberPool();

    /** Memory for @p size bytes, aligned for a member. */
    void* allocate(std::size_t size) {
        size = rounded(size);
        void* memory = released != nullptr ? reuse(size) : nullptr;
        if (memory == nullptr) {
            if (size > static_cast<std::size_t>(end - free)) grow(size);
            memory = free;
            free += size;
        }
        usedBytes += size;
        return memory;
    }

    /** Takes memory back that was allocated with this @p size. */
    void release(void* memory, std::size_t size) noexcept;

    /** Asks for one chunk that @p size bytes fit into. */
    void reserve(std::size_t size);

    /** Gives the chunks back of which nothing is in use any more. */
    void shrink();

    /** The bytes in use. */
    std::size_t used() const { return usedBytes; }

  private:
    struct alignas(IndexedMember) Chunk {
        Chunk* next;
        char* end;                  ///< of what was handed out; not kept while `free` tells it
        std::size_t releasedBytes;  ///< while shrinking
    };

    /** What stands in memory that was taken back. */
    struct Released {
        Released* sameSize;
        Released* otherSize;  ///< the first one of another size
        std::size_t size;
    };

    static std::size_t rounded(std::size_t size) {
        constexpr std::size_t largestExact = 512;
        if (size > largestExact) return roundedLarge(size);
        return (size + alignof(Chunk) - 1) / alignof(Chunk) * alignof(Chunk);
    }
    static std::size_t roundedLarge(std::size_t size);
    void* reuse(std::size_t size) noexcept;
    void push(void* memory, std::size_t size) noexcept;
    void grow(std::size_t size);

    Chunk* chunks = nullptr;
    char* free = nullptr;  ///< null when the first chunk is not carved from any more
    char* end = nullptr;
    std::size_t usedBytes = 0;
    Released* released = nullptr;  ///< one of each size
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

    /** Removes the member under a key; false when it is missing. */
    bool remove(std::string_view key) noexcept;
    bool remove(long long index) noexcept;

    /** The number of members. */
    std::size_t size() const { return named.size() + indexed.size(); }

    /** The index that appending uses. */
    long long nextIndex() const;

    /** Calls @p visit with each member's value. */
    template <class Visit>
    void forEachValue(Visit visit) const {
        named.forEach([&](const NamedEntry& entry) { visit(entry.member->value); });
        indexed.forEach([&](const IndexedEntry& entry) { visit(entry.member->value); });
    }

    void shrink();

    const SortedEntries<NamedEntry>& entries(std::string_view) const { return named; }
    const SortedEntries<IndexedEntry>& entries(long long) const { return indexed; }

  private:
    struct Destroyer {
        void operator()(Container* container) const noexcept { destroy(container); }
    };
    using Owner = std::unique_ptr<Container, Destroyer>;
    struct NestedCopy;

    ~Container() = default;
    NamedMember* newMember(std::string_view key);
    IndexedMember* newMember(long long index);
    template <class Entries, class Key, class Rank>
    Variant& append(Entries& entries, Key key, Rank rank);
    template <class Entries, class Key>
    Variant& add(Entries& entries, Key key);
    template <class Entries, class Key>
    Variant& insertInto(Entries& entries, Key key);
    template <class Entries, class Key>
    bool removeFrom(Entries& entries, Key key) noexcept;
    static Owner copyOneLevel(const Container& source, std::vector<NestedCopy>& nested);

    SortedEntries<NamedEntry> named;
    SortedEntries<IndexedEntry> indexed;
    MemberPool pool;
    Container* nextToDestroy = nullptr;
};

}  // namespace korvo::variant
