/**
 * @file The members of a value, in sorted vectors. Chosen over std::map, which takes 1.5 times as long to
 * build a tree of 1000 texts and 1.2 times as long to look them up (`scripts/bench`, rows "value: ..."). The
 * price: 10,000 members added to one container in random order take 2.5 times as long as in a map.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "korvo/variant/variant.h"

namespace korvo::variant {

/** An index as the text of a key that orders like the number: big-endian, with the sign bit flipped. */
class IndexKey {
  public:
    explicit IndexKey(long long index);
    operator std::string_view() const { return {bytes, sizeof bytes}; }
    static long long index(std::string_view key);

  private:
    char bytes[sizeof(long long)];
};

/** The members of one container with keys of one kind. */
class Members {
  public:
    /** Allocated individually, followed by the bytes of its key, and never moved. */
    struct Member {
        Variant value;
        std::size_t keySize;
        std::string_view key() const { return {reinterpret_cast<const char*>(this + 1), keySize}; }
    };

    struct Entry {
        Entry(std::uintptr_t keyRank, Member* owned) : rank(keyRank), member(owned) {}
        std::uintptr_t
            rank;  ///< the key's first bytes, which decide most comparisons without following the pointer
        Member* member;
    };

    Members() = default;
    Members(const Members&) = delete;
    Members& operator=(const Members&) = delete;
    ~Members();

    /** In ascending order. */
    const std::vector<Entry>& entries() const { return sorted; }

    /** The member under a key, null when missing. */
    Variant* find(std::string_view key) const;

    /** The member under a key, added as null when missing. */
    Variant& insert(std::string_view key);

    /** Removes the member under a key; false when it is missing. */
    bool remove(std::string_view key) noexcept;

    /** Copies the members of @p source into this empty list; @p copyValue copies each value. */
    template <class CopyValue>
    void copyFrom(const Members& source, CopyValue copyValue) {
        sorted.reserve(source.sorted.size());
        for (const Entry& entry : source.sorted) {
            Member* const member = create(entry.member->key());
            sorted.emplace_back(entry.rank, member);
            copyValue(entry.member->value, member->value);
        }
    }

    void shrink() { sorted.shrink_to_fit(); }

  private:
    /** Where a key is in the vector, or belongs. */
    struct Place {
        std::size_t position;
        Member* member;  ///< null if the key is missing
    };

    static Member* create(std::string_view key);
    static void destroy(Member* member) noexcept;
    Place locate(std::uintptr_t rank, std::string_view key) const;

    std::vector<Entry> sorted;
};

/** All members of one Variant that is a map or an array. */
class Container {
  public:
    /** Destroys a container and all below it, without recursion: a tree may be deeper than the stack. */
    static void destroy(Container* container) noexcept;

    using Owner = std::unique_ptr<Container, decltype(&destroy)>;

    /** A deep copy, also without recursion. */
    static Container* copy(const Container& source);

    /** Variant::Compact() for a container and all below it, also without recursion. */
    static void compact(Container* container) noexcept;

    /** The index that appending uses. */
    long long nextIndex() const;

    /** The members with text keys, or those with an index. */
    Members& of(bool hasIndex) { return hasIndex ? indexed : named; }

    Members named;
    Members indexed;  ///< each key is an IndexKey

  private:
    ~Container() = default;

    /** Calls @p visit with each member's value. */
    template <class Visit>
    void forEachValue(Visit visit) const {
        for (const Members* members : {&named, &indexed}) {
            for (const auto& entry : members->entries()) visit(entry.member->value);
        }
    }

    Container* nextPending = nullptr;  ///< while a tree is walked without recursion
};

}  // namespace korvo::variant
