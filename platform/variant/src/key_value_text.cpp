// Key=value text to a tree and back.
//
//   text    = { line line-end } [ line ]
//   line-end= "\n" | "\r\n"
//   line    = blank | "#" any | key "=" value          split at the first "="
//   key     = component { "." component }              1 to 64 components, any of which may be empty
//
// What the reader takes, the writer can give back; what the writer gives, the reader takes. Each refuses the
// rest.

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <new>
#include <utility>

#include "container.h"
#include "korvo/utils/file.h"
#include "korvo/variant/variant.h"

namespace korvo::variant {
namespace {

constexpr std::size_t maxComponents = 64;
constexpr std::size_t numberBufferSize = 32;  // the longest shortest double is 24 characters

/** Writes a number at @p out, where numberBufferSize bytes are free, and returns the end. */
template <class Number>
char* formatNumber(Number number, char* out) {
    char* const end = std::to_chars(out, out + numberBufferSize - 2, number).ptr;
    if constexpr (std::is_floating_point<Number>::value) {
        const std::string_view text(out, static_cast<std::size_t>(end - out));
        if (text.find_first_not_of("-0123456789") == std::string_view::npos) {
            end[0] = '.';
            end[1] = '0';
            return end + 2;
        }
    }
    return end;
}

/** Reads a number, but only from exactly the text that would be written for it. */
template <class Number>
[[nodiscard]] bool parseNumber(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
    char buffer[numberBufferSize];
    const char* const end = formatNumber(number, buffer);
    return std::string_view(buffer, static_cast<std::size_t>(end - buffer)) == text;
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\n\v\f\r") == std::string_view::npos;
}

}  // namespace

/** Builds a tree from key=value text, line by line. */
class KeyValueReader {
  public:
    KeyValueReader(Variant& tree, bool keepTexts) : root(tree), valuesAsStrings(keepTexts) {
        root.IsArray(false);
    }

    [[nodiscard]] bool read(std::string_view text) {
        while (!text.empty()) {
            const std::size_t lineEnd = text.find('\n');
            std::string_view line = text.substr(0, lineEnd);
            if (lineEnd != std::string_view::npos && !line.empty() && line.back() == '\r')
                line.remove_suffix(1);
            if (!readLine(line)) return false;
            text.remove_prefix(lineEnd != std::string_view::npos ? lineEnd + 1 : text.size());
        }
        return true;
    }

  private:
    [[nodiscard]] bool readLine(std::string_view line) {
        if (line.empty() || line.front() == '#') return true;
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) return isBlank(line);
        const std::string_view value = line.substr(equals + 1);
        if (!value.empty() && value.back() == '\r') return false;
        const std::string_view key = line.substr(0, equals);
        const std::size_t lastDot = key.rfind('.');
        Variant* group = lastDot == std::string_view::npos ? &root : findGroup(key.substr(0, lastDot));
        if (group == nullptr) return false;
        Variant& leaf = group->member(key.substr(lastDot + 1));
        if (leaf.isContainer()) return false;
        setValue(leaf, value);
        return true;
    }

    /**
     * The map that a path names, made when missing; null when the path is too long or leads through a value.
     */
    Variant* findGroup(std::string_view path) {
        // Lines of one group mostly stand together.
        if (lastGroup != nullptr && path == lastPath) return lastGroup;
        std::size_t components = 1;  // the leaf's own
        Variant* group = &root;
        for (std::size_t begin = 0; begin <= path.size();) {
            if (++components > maxComponents) return nullptr;
            const std::size_t end = std::min(path.find('.', begin), path.size());
            group = &group->member(path.substr(begin, end - begin));
            if (group->type == TypeNull) group->IsArray(false);
            if (!group->isContainer()) return nullptr;
            begin = end + 1;
        }
        lastPath = path;
        lastGroup = group;
        return group;
    }

    void setValue(Variant& leaf, std::string_view text) const {
        const bool maybeNumber =
            !text.empty() && (text.front() == '-' || (text.front() >= '0' && text.front() <= '9'));
        if (!valuesAsStrings && maybeNumber) {
            int small = 0;
            long long large = 0;
            unsigned long long largest = 0;
            double real = 0;
            if (parseNumber(text, small)) {
                leaf = small;
            } else if (parseNumber(text, large)) {
                leaf = large;
            } else if (parseNumber(text, largest)) {
                leaf = largest;
            } else if (text.find_first_not_of("-0123456789.e+") == std::string_view::npos &&
                       parseNumber(text, real)) {
                leaf = real;
            } else {
                leaf.setText(text);
            }
            return;
        }
        leaf.setText(text);
    }

    Variant& root;
    const bool valuesAsStrings;
    std::string_view lastPath;
    Variant* lastGroup = nullptr;
};

namespace {

/** Not 0 when one of the bytes of @p word is @p byte. */
template <class Word>
Word findByte(Word word, char byte) {
    constexpr Word ones = static_cast<Word>(-1) / 0xff;
    const Word difference = word ^ (ones * static_cast<unsigned char>(byte));
    return (difference - ones) & ~difference & (ones << 7);
}

/**
 * Copies at least a word's bytes; whether no byte is a line feed. The last word may overlap the one before.
 */
template <class Word>
inline bool copyWords(char* to, const char* from, std::size_t size) {
    Word lineFeeds = 0;
    for (std::size_t done = 0;;) {
        Word word;
        std::memcpy(&word, from + done, sizeof word);
        std::memcpy(to + done, &word, sizeof word);
        lineFeeds |= findByte(word, '\n');
        if (done + sizeof word == size) return lineFeeds == 0;
        done = std::min(done + sizeof word, size - sizeof word);
    }
}

/** Copies a value's text; whether it stands on one line and ends as it would be read. */
inline bool copyValue(char* to, const std::string& text) {
    const std::size_t size = text.size();
    if (size == 0) return true;
    bool accepted = text.back() != '\r';
    if (size >= sizeof(std::uint64_t)) return copyWords<std::uint64_t>(to, text.data(), size) && accepted;
    if (size >= sizeof(std::uint32_t)) return copyWords<std::uint32_t>(to, text.data(), size) && accepted;
    for (std::size_t i = 0; i < size; ++i) {
        to[i] = text[i];
        accepted = accepted && text[i] != '\n';
    }
    return accepted;
}

/** Copies a member's key, whole words of it; whether none of its bytes would be read as something else. */
inline bool copyKey(char* to, const NamedMember& member) {
    const char* from = member.key().data();
    NamedMember::KeyWord refused = 0;
    for (std::size_t done = 0; done < member.keyLength; done += sizeof refused) {
        NamedMember::KeyWord word;
        std::memcpy(&word, from + done, sizeof word);
        std::memcpy(to + done, &word, sizeof word);
        refused |= findByte(word, '=') | findByte(word, '.') | findByte(word, '\n');
    }
    return refused == 0;
}

}  // namespace

/**
 * Writes a tree as key=value text: first finds out how large the text can be, then writes it in one piece,
 * word by word, because calls to copy and to search such short texts would take longer than the work. Both go
 * down at most maxComponents levels, so little stands on the stack at each of them.
 */
class KeyValueWriter {
  public:
    KeyValueWriter(const std::string& betweenKeyAndValue, const std::string& afterLine)
        : keySeparator(betweenKeyAndValue),
          lineSeparator(afterLine),
          ownSeparators(betweenKeyAndValue != "=" || afterLine != "\n") {}

    /** Replaces @p text by that of the tree; false, and nothing done, when it cannot be written. */
    [[nodiscard]] bool write(const Variant& tree, std::string& text) {
        std::string written;
        if (const Container* root = tree.members()) {
            if (!measure(*root, {0, 1, true})) return false;
            written.resize(mostBytes + spare);
            path.resize(longestPath + spare);
            const char* const end = writeMembers(written.data(), *root, {0, 1, true});
            if (end == nullptr) return false;
            written.resize(static_cast<std::size_t>(end - written.data()));
        }
        text = std::move(written);
        return true;
    }

  private:
    using Word = NamedMember::KeyWord;
    static constexpr std::size_t spare = sizeof(Word);  ///< what copying in words can write too much

    /** The place of a container in the tree. */
    struct Place {
        std::size_t pathLength;  ///< of the keys that lead to it, each with a dot after it
        unsigned level;          ///< of its members, the root's being 1
        bool writable;           ///< whether all those keys can be written
    };

    /** Calls @p visit with every entry, those with an index first, as long as it gives true. */
    template <class Visit>
    static bool forEachEntry(const Container& container, Visit visit) {
        return forEachOf(container.entries(0LL), visit) &&
               forEachOf(container.entries(std::string_view()), visit);
    }
    template <class Entries, class Visit>
    static bool forEachOf(const Entries& entries, Visit visit) {
        for (std::size_t number = 0; number < entries.blockCount(); ++number) {
            for (const auto& entry : entries.block(number)) {
                if (!visit(*entry.member)) return false;
            }
        }
        return true;
    }

    /** Adds up what the lines below a container can take; false when they are too deep. */
    [[nodiscard]] bool measure(const Container& container, Place place) {
        if (place.level > maxComponents) return false;
        longestPath = std::max(longestPath, place.pathLength);
        return forEachEntry(container, [&](const auto& member) {
            const Variant& value = member.value;
            const std::size_t length = place.pathLength + longestKey(member);
            if (value.isContainer()) {
                const Container* child = value.members();
                return child == nullptr || measure(*child, {length + 1, place.level + 1, true});
            }
            addUp({length, keySeparator.size(), lineSeparator.size(),
                   value.type == TypeString ? value.payload.text.size() : numberBufferSize});
            return true;
        });
    }
    /** Each key may be as long as memory, and stands in every line below it: the sum need not fit a text. */
    void addUp(std::initializer_list<std::size_t> lengths) {
        for (const std::size_t length : lengths) {
            if (length > path.max_size() - spare - mostBytes) throw std::bad_alloc();
            mostBytes += length;
        }
    }
    static std::size_t longestKey(const NamedMember& member) { return member.keyLength; }
    static std::size_t longestKey(const IndexedMember& /*member*/) { return numberBufferSize; }

    /** Writes the lines below a container; the end of what is written, or null when they are refused. */
    char* writeMembers(char* to, const Container& container, Place place) {
        const bool written = forEachEntry(container, [&](const auto& member) {
            const Variant& value = member.value;
            if (!mayHaveLines(value)) return true;
            if (value.isContainer()) {
                char* const key = path.data() + place.pathLength;
                bool writable = place.writable;
                char* const end = writeKey(key, container, member, place, writable);
                *end = '.';
                const auto length = static_cast<std::size_t>(end + 1 - path.data());
                to = writeMembers(to, *value.members(), {length, place.level + 1, writable});
                return to != nullptr;
            }
            bool writable = place.writable;
            to = copyPath(to, place.pathLength);
            to = writeKey(to, container, member, place, writable);
            to = copySeparator(to, keySeparator);
            to = writeValue(to, value, writable);
            to = copySeparator(to, lineSeparator);
            return writable;
        });
        return written ? to : nullptr;
    }

    static bool mayHaveLines(const Variant& value) {
        return value.isContainer() ? value.payload.container != nullptr : value.type != TypeNull;
    }

    char* copyPath(char* to, std::size_t length) const {
        for (std::size_t done = 0; done < length; done += sizeof(Word))
            std::memcpy(to + done, path.data() + done, sizeof(Word));
        return to + length;
    }

    static char* copySeparator(char* to, const std::string& separator) {
        if (separator.size() == 1) {
            *to = separator[0];
            return to + 1;
        }
        return to + separator.copy(to, separator.size());
    }

    char* writeKey(char* to, const Container& /*container*/, const NamedMember& member, Place place,
                   bool& writable) const {
        writable =
            copyKey(to, member) && writable && !(place.level == 1 && member.keyLength > 0 && *to == '#');
        if (ownSeparators) checkOwn(member.key(), true, writable);
        return to + member.keyLength;
    }

    /** Refuses an index that looks like a text key. */
    char* writeKey(char* to, const Container& container, const IndexedMember& member, Place /*place*/,
                   bool& writable) const {
        char* const end = formatNumber(member.index, to);
        const std::string_view key(to, static_cast<std::size_t>(end - to));
        const Variant* twin = container.find(key);
        if (twin != nullptr && mayHaveLines(*twin)) writable = false;
        if (ownSeparators) checkOwn(key, true, writable);
        return end;
    }

    char* writeValue(char* to, const Variant& value, bool& writable) const {
        if (value.type == TypeString) {
            const std::string& text = value.payload.text;
            writable = copyValue(to, text) && writable;
            if (ownSeparators) checkOwn(text, false, writable);
            return to + text.size();
        }
        if (value.type == TypeDouble) return formatNumber(value.payload.real, to);
        if (value.type == TypeUInt64) return formatNumber(value.payload.integer, to);
        return formatNumber(static_cast<std::int64_t>(value.payload.integer), to);
    }

    /** Refuses a text that holds a separator of the caller's. */
    void checkOwn(std::string_view text, bool isKey, bool& writable) const {
        const auto holds = [text](const std::string& separator) {
            return !separator.empty() && text.find(separator) != std::string_view::npos;
        };
        if (holds(lineSeparator) || (isKey && holds(keySeparator))) writable = false;
    }

    const std::string& keySeparator;
    const std::string& lineSeparator;
    const bool ownSeparators;
    std::size_t mostBytes = 0;
    std::size_t longestPath = 0;
    std::string path;  ///< begins with the path of the container being written
};

bool Variant::FromKVP(const std::string& text, bool /*reserved*/, bool valuesAsStrings, bool /*reserved2*/) {
    Variant tree;
    if (!KeyValueReader(tree, valuesAsStrings).read(text)) return false;
    *this = std::move(tree);
    return true;
}

bool Variant::FromKVPFile(const std::string& path, bool reserved, bool valuesAsStrings, bool reserved2) {
    std::string text;
    return utils::File::ReadStringAll(path, text) && FromKVP(text, reserved, valuesAsStrings, reserved2);
}

bool Variant::ToKVP(std::string& text, const std::string& keySeparator,
                    const std::string& lineSeparator) const {
    if (type != TypeNull && !isContainer()) return false;
    return KeyValueWriter(keySeparator, lineSeparator).write(*this, text);
}

}  // namespace korvo::variant
