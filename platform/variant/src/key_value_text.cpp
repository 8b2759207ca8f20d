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
#include <cstring>
#include <utility>

#include "container.h"
#include "korvo/utils/file.h"
#include "korvo/variant/variant.h"

namespace korvo::variant {
namespace {

constexpr std::size_t maxComponents = 64;
constexpr std::size_t numberBufferSize = 32;  // the longest shortest double is 24 characters

template <class Number>
std::string_view formatNumber(Number number, char (&buffer)[numberBufferSize]) {
    const auto result = std::to_chars(buffer, buffer + numberBufferSize - 2, number);
    std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
    if constexpr (std::is_floating_point<Number>::value) {
        if (text.find_first_not_of("-0123456789") == std::string_view::npos) {
            std::memcpy(result.ptr, ".0", 2);
            text = {buffer, text.size() + 2};
        }
    }
    return text;
}

/** Reads a number, but only from exactly the text that would be written for it. */
template <class Number>
bool parseNumber(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
    char buffer[numberBufferSize];
    return formatNumber(number, buffer) == text;
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

    bool read(std::string_view text) {
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
    bool readLine(std::string_view line) {
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

    /** The map that a path names, made when missing; null when the path is too long or leads through a value. */
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

/** Writes a tree as key=value text. */
class KeyValueWriter {
  public:
    KeyValueWriter(const std::string& betweenKeyAndValue, const std::string& afterLine)
        : keySeparator(betweenKeyAndValue),
          lineSeparator(afterLine),
          ownSeparators(betweenKeyAndValue != "=" || afterLine != "\n") {}

    /** Writes what is below a container whose members' keys are component number @p level, 64 at most. */
    bool writeMembers(const Variant& value, std::size_t level) {
        const Container* container = value.members();
        if (container == nullptr) return true;
        if (level > maxComponents) return false;
        const auto& indexed = container->entries(0LL);
        for (std::size_t block = 0; block < indexed.blockCount(); ++block) {
            for (const IndexedEntry& entry : indexed.block(block)) {
                char buffer[numberBufferSize];
                const std::string_view key = formatNumber(entry.index, buffer);
                if (container->find(key) != nullptr || !writeMember(key, entry.member->value, level))
                    return false;
            }
        }
        const auto& named = container->entries(std::string_view());
        for (std::size_t block = 0; block < named.blockCount(); ++block) {
            for (const NamedEntry& entry : named.block(block)) {
                if (!writeMember(entry.member->key(), entry.member->value, level)) return false;
            }
        }
        return true;
    }

    std::string text;

  private:
    bool writeMember(std::string_view key, const Variant& value, std::size_t level) {
        if (value.type == TypeNull) return true;
        if (!isWritableKey(key)) return false;
        if (!value.isContainer()) return writeLine(key, value);
        const std::size_t length = path.size();
        path.append(key).push_back('.');
        const bool written = writeMembers(value, level + 1);
        path.resize(length);
        return written;
    }

    bool writeLine(std::string_view key, const Variant& value) {
        if ((path.empty() ? key : std::string_view(path)).substr(0, 1) == "#") return false;
        text.append(path).append(key);
        appendSeparator(keySeparator);
        if (value.type == TypeString) {
            if (!isWritableValue(value.payload.text)) return false;
            text.append(value.payload.text);
        } else {
            char buffer[numberBufferSize];
            text.append(value.type == TypeDouble   ? formatNumber(value.payload.real, buffer)
                        : value.type == TypeUInt64 ? formatNumber(value.payload.integer, buffer)
                                                   : formatNumber(static_cast<long long>(value), buffer));
        }
        appendSeparator(lineSeparator);
        return true;
    }

    void appendSeparator(const std::string& separator) {
        if (separator.size() == 1) {
            text.push_back(separator[0]);  // far less work than append()
        } else {
            text.append(separator);
        }
    }

    bool isWritableKey(std::string_view key) const {
        for (const char byte : key) {  // find_first_of would call a function for each byte
            if (byte == '=' || byte == '.' || byte == '\n') return false;
        }
        return !ownSeparators || (!contains(key, keySeparator) && !contains(key, lineSeparator));
    }

    bool isWritableValue(std::string_view value) const {
        if (value.find('\n') != std::string_view::npos || (!value.empty() && value.back() == '\r'))
            return false;
        return !ownSeparators || !contains(value, lineSeparator);
    }

    static bool contains(std::string_view text, const std::string& separator) {
        return !separator.empty() && text.find(separator) != std::string_view::npos;
    }

    const std::string& keySeparator;
    const std::string& lineSeparator;
    const bool ownSeparators;
    std::string path;  ///< the key of the container being written, with a dot behind it
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
    KeyValueWriter writer(keySeparator, lineSeparator);
    if (!writer.writeMembers(*this, 1)) return false;
    text = std::move(writer.text);
    return true;
}

}  // namespace korvo::variant
