#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

namespace korvo::variant {

/**
 * A sorted sequence of small entries, kept in blocks, so that adding or removing one moves at most a block's
 * worth of entries however many there are. The first block stands in the object itself: most containers never
 * have a second one. No block is empty but the first of an empty sequence.
 *
 * An Entry has `Key`, `rank()`, an integer that decides most comparisons, and `static bool less(const Entry&,
 * const Key&)`, `static bool equals(const Entry&, const Key&)` for entries whose rank is the key's. Its Key
 * has `rank()` too.
 */
template <class EntryType>
class SortedEntries {
  public:
    using Entry = EntryType;
    using Key = typename Entry::Key;
    using Block = std::vector<Entry>;

    /** Where an entry stands, or would stand. */
    struct Position {
        std::size_t block;
        std::size_t offset;
    };

    std::size_t size() const { return count; }
    std::size_t blockCount() const { return count == 0 ? 0 : 1 + tail.size(); }
    const Block& block(std::size_t number) const { return number == 0 ? head : tail[number - 1]; }
    const Entry& last() const { return block(blockCount() - 1).back(); }

    /** Whether all entries are less than @p key. */
    bool endsBefore(const Key& key) const {
        const Block& entries = block(tail.size());
        return entries.empty() || less(entries.back(), key);
    }

    /** The entry with @p key; null when there is none. */
    const Entry* find(const Key& key) const {
        const Block& entries = tail.empty() ? head : block(findBlock(key));
        const Entry* const end = entries.data() + entries.size();
        const Entry* const found = rankBound(entries, key.rank());
        if (found == end || found->rank() != key.rank()) return nullptr;
        return Entry::equals(*found, key) ? found : findOfRank(found, end, key);
    }

    /** Where the entry with @p key stands or would stand. */
    Position lowerBound(Key key) const {
        const std::size_t number = tail.empty() ? 0 : findBlock(key);
        const Block& entries = block(number);
        const Entry* const begin = rankBound(entries, key.rank());
        const Entry* const found = std::lower_bound(begin, entries.data() + entries.size(), key, less);
        return {number, static_cast<std::size_t>(found - entries.data())};
    }

    /** The entry with @p key, which stands at @p position if anywhere; null when there is none. */
    const Entry* at(Position position, const Key& key) const {
        const Block& entries = block(position.block);
        if (position.offset == entries.size()) return nullptr;
        const Entry& entry = entries[position.offset];
        return equals(entry, key) ? &entry : nullptr;
    }

    /** Adds an entry after all others. When memory fails, nothing has changed. */
    void append(const Entry& entry) {
        if (block(tail.size()).size() == blockCapacity) {
            // A full block stays as it is; entries that come in order leave no block half empty.
            Block next;
            next.reserve(blockCapacity);
            tail.push_back(std::move(next));
        }
        Block& entries = mutableBlock(tail.size());
        makeRoom(entries);
        entries.push_back(entry);
        ++count;
    }

    /** Adds an entry at the position that lowerBound() gave. When memory fails, nothing has changed. */
    void insert(Position position, const Entry& entry) {
        if (block(position.block).size() == blockCapacity) position = split(position);
        Block& entries = mutableBlock(position.block);
        makeRoom(entries);
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(position.offset), entry);
        ++count;
    }

    /** Removes the entry at @p position. Needs no memory. */
    void erase(Position position) noexcept {
        Block& entries = mutableBlock(position.block);
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position.offset));
        --count;
        if (!tail.empty()) mergeBlocks(position.block > 0 ? position.block - 1 : 0);
    }

    /** Gives an empty sequence the shape of another, each entry made by @p copy. */
    template <class Copy>
    void copyFrom(const SortedEntries& other, Copy copy) {
        tail.resize(other.tail.size());
        for (std::size_t number = 0; number < other.blockCount(); ++number) {
            const Block& source = other.block(number);
            Block& target = mutableBlock(number);
            target.reserve(source.size());
            for (const Entry& entry : source) {
                target.push_back(copy(entry));
                ++count;
            }
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

    static bool less(const Entry& entry, const Key& key) {
        return entry.rank() != key.rank() ? entry.rank() < key.rank() : Entry::less(entry, key);
    }
    static bool equals(const Entry& entry, const Key& key) {
        return entry.rank() == key.rank() && Entry::equals(entry, key);
    }

    static void makeRoom(Block& entries) {
        if (entries.size() == entries.capacity())
            entries.reserve(std::max(firstCapacity, entries.size() * 2));
    }

    /**
     * The first entry of a block whose rank is not less than @p rank. Few keys share a rank, so this is
     * mostly the whole search, in a loop without a branch that the processor would have to guess.
     */
    template <class Rank>
    static const Entry* rankBound(const Block& entries, Rank rank) {
        const Entry* first = entries.data();
        for (std::size_t left = entries.size(); left > 0;) {
            const std::size_t half = (left + 1) / 2;
            first += first[half - 1].rank() < rank ? half : 0;
            left -= half;
        }
        return first;
    }

    /** The entry with @p key among those from @p begin on; null when there is none. */
    __attribute__((noinline)) static const Entry* findOfRank(const Entry* begin, const Entry* end, Key key) {
        const Entry* const found = std::lower_bound(begin, end, key, less);
        return found != end && equals(*found, key) ? found : nullptr;
    }

    /** The last block whose first entry is not greater than @p key, or the first block. */
    __attribute__((noinline)) std::size_t findBlock(Key key) const {
        const auto startsBefore = [](const Block& entries, const Key& wanted) {
            return less(entries.front(), wanted) || equals(entries.front(), wanted);
        };
        const auto after = std::lower_bound(tail.begin(), tail.end(), key, startsBefore);
        return static_cast<std::size_t>(after - tail.begin());
    }

    /** Splits the full block at @p position into halves and returns where the position has gone. */
    Position split(Position position) {
        constexpr std::size_t keep = blockCapacity / 2;
        Block upper;
        upper.reserve(blockCapacity);
        tail.insert(tail.begin() + static_cast<std::ptrdiff_t>(position.block), std::move(upper));
        Block& lower = mutableBlock(position.block);
        const auto middle = lower.begin() + static_cast<std::ptrdiff_t>(keep);
        tail[position.block].assign(middle, lower.end());
        lower.erase(middle, lower.end());
        if (position.offset <= keep) return position;
        return {position.block + 1, position.offset - keep};
    }

    /**
     * Makes one of a block and the next one when either is empty, or both fill less than half of one.
     */
    void mergeBlocks(std::size_t number) noexcept {
        Block& lower = mutableBlock(number);
        Block& upper = tail[number];
        const std::size_t sum = lower.size() + upper.size();
        if (lower.empty()) {
            lower.swap(upper);
        } else if (sum <= lower.capacity() && (upper.empty() || sum < blockCapacity / 2)) {
            lower.insert(lower.end(), upper.begin(), upper.end());
        } else {
            return;
        }
        tail.erase(tail.begin() + static_cast<std::ptrdiff_t>(number));
    }

    Block head;
    std::vector<Block> tail;
    std::size_t count = 0;
};

}  // namespace korvo::variant
