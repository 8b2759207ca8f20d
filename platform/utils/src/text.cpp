#include "korvo/utils/text.h"

#include <locale.h>
#include <stdlib.h>

#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace korvo::utils {

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
    const auto isWhiteSpace = [](char character) {
        return character == ' ' || (character >= '\t' && character <= '\r');
    };
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

double toDouble(const char* text, const char** end) {
    static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    char* stop = nullptr;
    const double value = ::strtod_l(text, &stop, cLocale);
    if (end != nullptr) *end = stop;
    return value;
}

}  // namespace korvo::utils
