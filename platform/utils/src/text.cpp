#include "korvo/utils/text.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

namespace korvo::utils {
namespace {

bool isWhiteSpace(char character) { return character == ' ' || (character >= '\t' && character <= '\r'); }

}  // namespace

void split(const std::string& text, const std::string& separator, std::vector<std::string>& pieces) {
    if (text.empty()) return;
    // Apart from what is there, of which the text or the separator may be one.
    std::vector<std::string> found;
    std::size_t begin = 0;
    while (!separator.empty()) {
        const std::size_t end = text.find(separator, begin);
        if (end == std::string::npos) break;
        found.emplace_back(text, begin, end - begin);
        begin = end + separator.size();
    }
    found.emplace_back(text, begin);
    if (pieces.empty()) {
        pieces.swap(found);
    } else {
        pieces.insert(pieces.end(), std::make_move_iterator(found.begin()),
                      std::make_move_iterator(found.end()));
    }
}

void trim(std::string& text) {
    std::size_t end = text.size();
    while (end > 0 && isWhiteSpace(text[end - 1])) --end;
    text.resize(end);
    std::size_t begin = 0;
    while (begin < end && isWhiteSpace(text[begin])) ++begin;
    text.erase(0, begin);
}

namespace {

/**
 * Finds a text in others, in a time that grows with their lengths but never with the product (Knuth, Morris,
 * Pratt).
 */
class Finder {
  public:
    explicit Finder(const std::string& wanted) : search(wanted) {
        if (search.size() <= shortLength) return;
        borders.push_back(0);
        for (std::size_t i = 1, border = 0; i < search.size(); ++i) {
            border = extend(border, search[i]);
            borders.push_back(border);
        }
    }

    /** Where the next occurrence begins; npos when there is none. */
    std::size_t find(const std::string& text, std::size_t begin) const {
        if (borders.empty()) return text.find(search, begin);
        for (std::size_t i = begin, matched = 0; i < text.size(); ++i) {
            matched = extend(matched, text[i]);
            if (matched == search.size()) return i + 1 - matched;
        }
        return std::string::npos;
    }

  private:
    static constexpr std::size_t shortLength = 16;  ///< what the library's own search cannot be slow at

    /**
     * The length of the longest beginning of the search text that ends with @p next, of those that end before
     * it.
     */
    std::size_t extend(std::size_t matched, char next) const {
        while (matched > 0 && search[matched] != next) matched = borders[matched - 1];
        return search[matched] == next ? matched + 1 : 0;
    }

    const std::string& search;
    std::vector<std::size_t>
        borders;  ///< by length: the longest beginning that is the end too; empty when not needed
};

}  // namespace

void replaceAll(std::string& text, const std::string& search, const std::string& replacement) {
    if (search.empty()) return;
    const Finder finder(search);
    std::size_t found = finder.find(text, 0);
    if (found == std::string::npos) return;
    // Built anew instead of replaced in place, which would move the rest of the text once per occurrence.
    std::string result;
    result.reserve(text.size());
    std::size_t begin = 0;
    for (; found != std::string::npos; found = finder.find(text, begin)) {
        result.append(text, begin, found - begin).append(replacement);
        begin = found + search.size();
    }
    text = result.append(text, begin);
}

std::string lowerCase(const std::string& text) {
    std::string lower = text;
    for (char& character : lower) {
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    }
    return lower;
}

std::string format(const char* format, ...) {
    va_list arguments;
    char small[128];
    va_start(arguments, format);
    const int length = std::vsnprintf(small, sizeof small, format, arguments);
    va_end(arguments);
    if (length < 0) return {};
    const auto size = static_cast<std::size_t>(length);
    if (size < sizeof small) return {small, size};
    std::string result(size + 1, '\0');
    va_start(arguments, format);
    (void)std::vsnprintf(result.data(), result.size(), format, arguments);
    va_end(arguments);
    result.pop_back();
    return result;
}

namespace {

/**
 * Whether a number that no double comes near is too large, not too small: its first digit but zeros stands
 * before the point after the exponent has moved that.
 */
bool isTooLarge(const char* text, const char* end, bool hexadecimal) {
    long long digitsBeforePoint = 0;
    bool significant = false;
    bool fraction = false;
    for (; text != end && (*text | 0x20) != (hexadecimal ? 'p' : 'e'); ++text) {
        significant = significant || (*text != '0' && *text != '.');
        if (*text == '.')
            fraction = true;
        else if (significant != fraction)
            digitsBeforePoint += significant ? 1 : -1;
    }
    long long exponent = 0;
    if (text != end) {
        if (*++text == '+') ++text;
        const bool fits = std::from_chars(text, end, exponent).ec == std::errc();
        if (!fits) return *text != '-';
    }
    return exponent > -(hexadecimal ? 4 * digitsBeforePoint : digitsBeforePoint);
}

/** Reads a number without sign and prefix; returns its end, @p text when there is none. */
const char* readNumber(const char* text, const char* end, std::chars_format format, double& value) {
    const bool hexadecimal = format == std::chars_format::hex;
    // What may not follow a sign or prefix, though it may stand at the beginning.
    if (*text == '-' || (hexadecimal && (*text | 0x20) == 'i') || (hexadecimal && (*text | 0x20) == 'n'))
        return text;
    const auto [stop, error] = std::from_chars(text, end, value, format);
    // Some standard libraries copy a text, which may be long.
    if (error == std::errc::not_enough_memory) throw std::bad_alloc();
    if (error == std::errc::result_out_of_range)
        value = isTooLarge(text, stop, hexadecimal) ? std::numeric_limits<double>::infinity() : 0.0;
    return stop;
}

}  // namespace

// Not strtod(), which follows the host's locale, and which in small C libraries rounds wrongly.
double toDouble(const char* text, const char** end) {
    const char* number = text;
    while (isWhiteSpace(*number)) ++number;
    const bool negative = *number == '-';
    if (negative || *number == '+') ++number;
    const char* const textEnd = number + std::strlen(number);
    double value = 0.0;
    const char* stop = number;
    if (number[0] == '0' && (number[1] | 0x20) == 'x') {
        stop = readNumber(number + 2, textEnd, std::chars_format::hex, value);
        if (stop == number + 2) stop = number;
    }
    if (stop == number) stop = readNumber(number, textEnd, std::chars_format::general, value);
    const bool read = stop != number;
    if (end != nullptr) *end = read ? stop : text;
    return read && negative ? -value : value;
}

}  // namespace korvo::utils
