// Key=value text to a tree and back.
//
//   text    = { line line-end } [ line ]
//   line-end= "\n" | "\r\n"
//   line    = blank | "#" any | key "=" value          split at the first "="
//   key     = component { "." component }              1 to maxKeyComponents, any of which may be empty
//
// The reader takes only what the writer can give back; the writer gives only what the reader takes.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <new>
#include <stdexcept>
#include <utility>

#include "korvo/utils/file.h"
#include "korvo/variant/variant.h"

namespace korvo::variant {
namespace {

template <class Number>
std::string numberText(Number number) {
    char buffer[32];  // the longest double takes 24 characters
    if constexpr (std::is_floating_point<Number>::value) {
        if (std::isnan(number)) return "nan";  // some machines would write "-nan"
    }
    std::string text(buffer, std::to_chars(buffer, buffer + sizeof buffer, number).ptr);
    if (std::is_floating_point<Number>::value && text.find_first_not_of("-0123456789") == std::string::npos)
        text += ".0";
    return text;
}

std::string numberText(const Variant& number) {
    if (VariantType(number) == TypeDouble) return numberText(number.As<double>());
    if (VariantType(number) == TypeUInt64) return numberText(number.As<unsigned long long>());
    return numberText(number.As<long long>());
}

/** Sets a value to the number in @p text; false when that number would be written as another text. */
template <class Number>
[[nodiscard]] bool setNumber(Variant& value, std::string_view text) {
    Number number = 0;  // stays 0 when the text is no number
    (void)std::from_chars(text.data(), text.data() + text.size(), number);
    if (numberText(number) != text) return false;
    value = number;
    return true;
}

/** Sets a value to the first type of number that fits, or else to the text. */
void setNumberOrText(Variant& value, std::string_view text) {
    if (text.find_first_not_of("-0123456789.e+") == std::string_view::npos &&  // above all not inf or nan
        (setNumber<int>(value, text) || setNumber<long long>(value, text) ||
         setNumber<unsigned long long>(value, text) || setNumber<double>(value, text)))
        return;
    value = text;
}

bool isContainer(VariantType type) { return type == TypeMap || type == TypeArray; }

/** Builds a tree from key=value text, line by line. */
class KeyValueReader {
  public:
    KeyValueReader(Variant& map, bool keepTexts) : root(map), valuesAsStrings(keepTexts) {}

    [[nodiscard]] bool read(std::string_view text) {
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = std::min(text.find('\n', begin), text.size());
            std::string_view line = text.substr(begin, end - begin);
            if (end < text.size() && !line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (!readLine(line)) return false;
            begin = end + 1;
        }
        return true;
    }

  private:
    [[nodiscard]] bool readLine(std::string_view line) {
        if (line.empty() || line.front() == '#') return true;
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos)  // only a blank line may lack it
            return line.find_first_not_of(" \t\n\v\f\r") == std::string_view::npos;
        const std::string_view value = line.substr(equals + 1);
        if (!value.empty() && value.back() == '\r') return false;
        const std::string_view key = line.substr(0, equals);
        const std::size_t lastDot = key.rfind('.');
        Variant* group = lastDot == std::string_view::npos ? &root : findGroup(key.substr(0, lastDot));
        if (group == nullptr) return false;
        Variant& leaf = (*group)[key.substr(lastDot + 1)];
        if (isContainer(leaf)) return false;
        if (valuesAsStrings)
            leaf = value;
        else
            setNumberOrText(leaf, value);
        return true;
    }

    /** The map at a path, made when missing; null when the path is too long or leads through a value. */
    Variant* findGroup(std::string_view path) {
        // Lines of one group mostly stand together.
        if (lastGroup != nullptr && path == lastPath) return lastGroup;
        std::size_t components = 1;  // the leaf's own
        Variant* group = &root;
        for (std::size_t begin = 0; begin <= path.size();) {
            if (++components > maxKeyComponents) return nullptr;
            const std::size_t end = std::min(path.find('.', begin), path.size());
            group = &(*group)[path.substr(begin, end - begin)];
            if (VariantType(*group) == TypeNull) group->IsArray(false);
            if (!isContainer(*group)) return nullptr;
            begin = end + 1;
        }
        lastPath = path;
        lastGroup = group;
        return group;
    }

    Variant& root;
    const bool valuesAsStrings;
    std::string_view lastPath;
    Variant* lastGroup = nullptr;
};

/** Writes a tree as key=value text. */
class KeyValueWriter {
  public:
    KeyValueWriter(const std::string& betweenKeyAndValue, const std::string& afterLine, std::size_t expected)
        : keySeparator(betweenKeyAndValue), lineSeparator(afterLine), lines(expected, '\0') {}

    /** Appends the lines of a group whose members' keys have so many components; false refuses the tree. */
    [[nodiscard]] bool writeGroup(const Variant& group, std::size_t components) {
        if (components > maxKeyComponents) return group.Size() == 0;
        for (const auto& [index, member] : group.Indexed()) {
            const std::string key = numberText(index);
            const std::size_t before = length;
            if (!writeMember(key, member, components)) return false;
            const std::size_t after = length;
            if (after == before) continue;
            // A text key that looks the same may have no line.
            if (!writeMember(key, group[key], components) || length > after) return false;
        }
        for (const auto& [key, member] : group) {
            if (!writeMember(key, member, components)) return false;
        }
        return true;
    }

    std::string takeLines() {
        lines.resize(length);
        return std::move(lines);
    }

  private:
    [[nodiscard]] bool writeMember(std::string_view key, const Variant& member, std::size_t components) {
        const std::size_t begin = length;
        bool written = true;
        if (isContainer(member)) {
            const std::size_t pathLength = path.size();
            path.append(key).append(".");
            written = writeGroup(member, components + 1);
            path.resize(pathLength);
        } else if (VariantType(member) != TypeNull) {
            written = writeLine(key, member);
        }
        const bool hasLine = length > begin;
        return written && !(hasLine && key.find('.') != std::string_view::npos);
    }

    /** Appends the line of one value; false when it would not be read as that key and that value. */
    [[nodiscard]] bool writeLine(std::string_view key, const Variant& member) {
        const bool isText = VariantType(member) == TypeString;
        const std::string number = isText ? std::string() : numberText(member);
        const std::string_view value = isText ? member.As<std::string_view>() : number;
        const std::size_t begin = length;
        const std::size_t keyEnd = begin + path.size() + key.size();
        const std::size_t valueEnd = keyEnd + keySeparator.size() + value.size();
        const std::size_t lineEnd = valueEnd + lineSeparator.size();
        if (lineEnd > lines.size()) lines.resize(std::max(2 * lines.size(), lineEnd));
        append(path);
        append(key);
        append(keySeparator);
        append(value);
        append(lineSeparator);
        if (valueEnd > begin && (lines[begin] == '#' || lines[valueEnd - 1] == '\r')) return false;
        return isFirst(keySeparator, begin, keyEnd) && isFirst(lineSeparator, begin, valueEnd);
    }

    /** Appends where there is room. ToKVP() takes 1.2 times as long with std::string::append, a call. */
    void append(std::string_view piece) {
        if (piece.size() == 1)
            lines[length] = piece[0];
        else
            piece.copy(&lines[length], piece.size());
        length += piece.size();
    }

    /** Whether the first separator in what was written from @p begin on is at @p position. */
    bool isFirst(const std::string& separator, std::size_t begin, std::size_t position) const {
        const std::string_view written(lines.data(), length);
        if (separator.size() == 1) return written.find(separator[0], begin) == position;  // twice as fast
        return separator.empty() || written.find(separator, begin) == position;
    }

    const std::string& keySeparator;
    const std::string& lineSeparator;
    std::string path;  ///< of the current group: each key followed by a dot
    std::string lines;
    std::size_t length = 0;  ///< of what is written; the rest of `lines` is room
};

}  // namespace

bool Variant::FromKVP(const std::string& text, bool /*reserved*/, bool valuesAsStrings, bool /*reserved2*/) {
    Variant tree;
    tree.IsArray(false);
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
    try {
        KeyValueWriter writer(keySeparator, lineSeparator, text.capacity());
        if (!writer.writeGroup(*this, 1)) return false;
        text = writer.takeLines();
        return true;
    } catch (const std::length_error&) {
        // Each line repeats the keys of its groups, so all lines may be longer than any text.
        throw std::bad_alloc();
    }
}

}  // namespace korvo::variant
