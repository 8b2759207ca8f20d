/**
 * @file The members of a value, in sorted vectors. Chosen over std::map: a tree of 1000 texts in std::maps
 * takes 1.5 times as long to build, as long to copy and 1.2 times as long to look every text up
 * (`scripts/bench`, rows "value: ...", there std::map). The price: 10,000 members added to one container in random order take
 * 2.5 times as long, because each of them moves the entries behind it.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "korvo/variant/variant.h"

namespace korvo::variant {

/** The members of one container with keys of one kind: @p Key is std::string_view or long long. */
template <class Key>
class Members {
  public:
    /** Allocated by itself, with the bytes of a text key right behind it, and never moved. */
    struct Member {
        Variant value;
        Key key;
    };

    /** What decides most comparisons without a look at the member: an index itself, a text's first bytes. */
    using Rank = std::conditional_t<std::is_same<Key, long long>::value, long long, std::uintptr_t>;

    struct Entry {
        Rank rank;
        Member* member;
    };

    Members() = default;
    Members(const Members&) = delete;
    Members& operator=(const Members&) = delete;
    ~Members();

    /** In ascending order. */
    const std::vector<Entry>& entries() const { return sorted; }

    /** The member under a key, null when missing. */
    Variant* find(Key key) const;

    /** The member under a key, added as null when missing. */
    Variant& insert(Key key);

    /** Removes the member under a key; false when it is missing. */
    bool remove(Key key) noexcept;

    void shrink() { sorted.shrink_to_fit(); }

  protected:
    /** Adds the members of @p source to none; @p copyValue copies each value. */
    template <class CopyValue>
    void copyFrom(const Members& source, CopyValue copyValue);

  private:
    /** Where a key stands in the vector, or would stand. */
    struct Place {
        typename std::vector<Entry>::const_iterator position;
        Rank rank;
        bool taken;
    };

    static bool isBefore(const Entry& entry, Rank rank, Key key) {
        return entry.rank != rank ? entry.rank < rank : entry.member->key < key;
    }
    static Member* create(Key key);
    static void destroy(Member* member) noexcept;
    Place locate(Key key) const;

    std::vector<Entry> sorted;
};

/** All members of one Variant that is a map or an array. */
class Container : public Members<std::string_view>, public Members<long long> {
  public:
    using Named = Members<std::string_view>;
    using Indexed = Members<long long>;

    /** Destroys a container with all below it. Without recursion: a tree may be deeper than the stack. */
    static void destroy(Container* container) noexcept;

    /** A deep copy, likewise without recursion. */
    static Container* copy(const Container& source);

    using Indexed::find;
    using Indexed::insert;
    using Indexed::remove;
    using Named::find;
    using Named::insert;
    using Named::remove;

    /** The index that appending uses. */
    long long nextIndex() const;

    /** Calls @p visit with each member's value. */
    template <class Visit>
    void forEachValue(Visit visit) const {
        for (const auto& entry : Named::entries()) visit(entry.member->value);
        for (const auto& entry : Indexed::entries()) visit(entry.member->value);
    }

    void shrink() {
        Named::shrink();
        Indexed::shrink();
    }

  private:
    struct NestedCopy;

    ~Container() = default;

    Container* nextToDestroy = nullptr;
};

}  // namespace korvo::variant
