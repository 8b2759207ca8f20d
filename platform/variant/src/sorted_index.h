#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

namespace korvo::variant {

/**
 * A sorted sequence of small entries, kept in blocks, so that adding one moves at most a block's worth of
 * entries however many there are. The first block stands in the object itself: most containers never have a
 * second one.
 *
 * An Entry has a `Key` type and `static bool less(const Entry&, const Key&)`, `static bool equals(const
 * Entry&, const Key&)`.
 */
template <class Entry>
class SortedIndex {
  public:
    using Key = typename Entry::Key;
    using Block = std::vector<Entry>;

    /** Where an entry stands, or would stand. */
    struct Position {
        std::size_t block;
        std::size_t offset;
    };

    std::size_t blockCount() const { return head.empty() ? 0 : 1 + tail.size(); }
    const Block& block(std::size_t number) const { return number == 0 ? head : tail[number - 1]; }

    /** Where the entry with @p key stands or would stand; the end of the last block when all are less. */
    Position lowerBound(const Key& key) const {
        const std::size_t number = tail.empty() ? 0 : findBlock(key);
        const Block& entries = block(number);
        // Texts and declarations mostly come in order, so the end is tried before searching.
        const bool atEnd = entries.empty() || Entry::less(entries.back(), key);
        return {number, atEnd ? entries.size() : search(entries, key)};
    }

    /** The entry with @p key, which stands at @p position if anywhere; null when there is none. */
    const Entry* at(Position position, const Key& key) const {
        const Block& entries = block(position.block);
        if (position.offset == entries.size()) return nullptr;
        const Entry& entry = entries[position.offset];
        return Entry::equals(entry, key) ? &entry : nullptr;
    }

    /** The entry with @p key; null when there is none. */
    const Entry* find(const Key& key) const {
        const std::size_t number = tail.empty() ? 0 : findBlock(key);
        return at({number, search(block(number), key)}, key);
    }

    /** Adds an entry at the position that lowerBound() gave. When memory fails, nothing has changed. */
    void insert(Position position, const Entry& entry) {
        if (block(position.block).size() == blockCapacity) position = split(position);
        Block& entries = mutableBlock(position.block);
        if (entries.size() == entries.capacity())
            entries.reserve(std::max(firstCapacity, entries.size() * 2));
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(position.offset), entry);
    }

    /** Takes an empty index over the shape of another, each entry made by @p copy. */
    template <class Copy>
    void copyFrom(const SortedIndex& other, Copy copy) {
        tail.resize(other.tail.size());
        for (std::size_t number = 0; number < other.blockCount(); ++number) {
            const Block& source = other.block(number);
            Block& target = mutableBlock(number);
            target.reserve(source.size());
            for (const Entry& entry : source) target.push_back(copy(entry));
        }
    }

    template <class Visit>
    void forEach(Visit visit) const {
        for (std::size_t number = 0; number < blockCount(); ++number) {
            for (const Entry& entry : block(number)) visit(entry);
        }
    }

    void shrink() {
        head.shrink_to_fit();
        tail.shrink_to_fit();
        for (Block& entries : tail) entries.shrink_to_fit();
    }

  private:
    static constexpr std::size_t firstCapacity = 8;
    static constexpr std::size_t blockCapacity = 128;

    Block& mutableBlock(std::size_t number) { return number == 0 ? head : tail[number - 1]; }

    /** The offset of the first entry that is not less than @p key. */
    static std::size_t search(const Block& entries, const Key& key) {
        const auto less = [](const Entry& entry, const Key& wanted) { return Entry::less(entry, wanted); };
        const auto found = std::lower_bound(entries.begin(), entries.end(), key, less);
        return static_cast<std::size_t>(found - entries.begin());
    }

    /** The last block whose first entry is not greater than @p key, or the first block. */
    std::size_t findBlock(const Key& key) const {
        const auto startsBefore = [](const Block& entries, const Key& wanted) {
            return Entry::less(entries.front(), wanted) || Entry::equals(entries.front(), wanted);
        };
        const auto after = std::lower_bound(tail.begin(), tail.end(), key, startsBefore);
        return static_cast<std::size_t>(after - tail.begin());
    }

    /**
     * Splits the full block at @p position and returns where the position has gone. Entries that come in
     * order start a new block and leave a full one behind.
     */
    Position split(Position position) {
        const bool atEnd = position.block == tail.size() && position.offset == blockCapacity;
        const std::size_t keep = atEnd ? blockCapacity : blockCapacity / 2;
        Block upper;
        upper.reserve(blockCapacity);
        tail.insert(tail.begin() + static_cast<std::ptrdiff_t>(position.block), std::move(upper));
        Block& lower = mutableBlock(position.block);
        const auto middle = lower.begin() + static_cast<std::ptrdiff_t>(keep);
        tail[position.block].assign(middle, lower.end());
        lower.erase(middle, lower.end());
        if (position.offset <= keep && !atEnd) return position;
        return {position.block + 1, position.offset - keep};
    }

    Block head;
    std::vector<Block> tail;
};

}  // namespace korvo::variant
