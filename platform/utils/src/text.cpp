#include "korvo/utils/text.h"

#include <locale.h>
#include <stdlib.h>

#include <cstdarg>
#include <cstdio>

namespace korvo::utils {

void split(const std::string& text, const std::string& separator, std::vector<std::string>& pieces) {
    if (text.empty()) return;
    std::size_t begin = 0;
    while (!separator.empty()) {
        const std::size_t found = text.find(separator, begin);
        if (found == std::string::npos) break;
        pieces.emplace_back(text, begin, found - begin);
        begin = found + separator.size();
    }
    pieces.emplace_back(text, begin);
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

void replaceAll(std::string& text, const std::string& search, const std::string& replacement) {
    if (search.empty()) return;
    std::size_t found = text.find(search);
    if (found == std::string::npos) return;
    // Built anew instead of replaced in place, which would move the rest of the text once per occurrence.
    std::string result;
    result.reserve(text.size());
    std::size_t begin = 0;
    for (; found != std::string::npos; found = text.find(search, begin)) {
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
