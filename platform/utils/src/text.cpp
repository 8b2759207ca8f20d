#include "korvo/utils/text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

namespace korvo::utils {
namespace {

constexpr char whiteSpace[] = " \t\n\v\f\r";

/**
 * Whether a number outside the range of double is too large, not too small: its first significant digit is
 * before the point once the exponent has moved the point.
 */
bool isTooLarge(std::string_view number, bool hexadecimal) {
    const std::string_view digits = number.substr(0, number.find_first_of(hexadecimal ? "pP" : "eE"));
    const auto point = static_cast<long long>(std::min(digits.find('.'), digits.size()));
    const auto first = static_cast<long long>(digits.find_first_not_of("0."));
    // If negative, the number of zeros between the point and the first digit, give or take one.
    const long long digitsBeforePoint = hexadecimal ? 4 * (point - first) : point - first;
    const bool hasExponent = digits.size() < number.size();
    const long long exponent = hasExponent ? std::strtoll(digits.data() + digits.size() + 1, nullptr, 10) : 0;
    return exponent > -digitsBeforePoint;
}

/** Reads a number without sign and prefix; returns its end, or @p text if there is none. */
const char* readNumber(const char* text, const char* end, std::chars_format format, double& value) {
    const bool hexadecimal = format == std::chars_format::hex;
    // No number begins with a second sign, nor "inf" or "nan" after a prefix.
    const bool isDigit = std::isxdigit(static_cast<unsigned char>(*text)) != 0;
    if (*text == '-' || (hexadecimal && !isDigit && *text != '.')) return text;
    const auto [stop, error] = std::from_chars(text, end, value, format);
    // Some standard libraries copy the text.
    if (error == std::errc::not_enough_memory) throw std::bad_alloc();
    if (error == std::errc::result_out_of_range)
        value = isTooLarge({text, static_cast<std::size_t>(stop - text)}, hexadecimal)
                    ? std::numeric_limits<double>::infinity()
                    : 0.0;
    return stop;
}

}  // namespace

void split(const std::string& text, const std::string& separator, std::vector<std::string>& pieces) {
    if (text.empty()) return;
    // Collected apart: the text or the separator may be one of the pieces.
    std::vector<std::string> found;
    std::size_t begin = 0;
    while (!separator.empty()) {
        const std::size_t end = text.find(separator, begin);
        if (end == std::string::npos) break;
        found.push_back(text.substr(begin, end - begin));
        begin = end + separator.size();
    }
    found.push_back(text.substr(begin));
    for (std::string& piece : found) pieces.push_back(std::move(piece));
}

void trim(std::string& text) {
    text.erase(text.find_last_not_of(whiteSpace) + 1);
    text.erase(0, text.find_first_not_of(whiteSpace));
}

void replaceAll(std::string& text, const std::string& search, const std::string& replacement) {
    if (search.empty()) return;
    // Built anew: replacing in place would move the rest of the text at each occurrence.
    std::string result;
    std::size_t begin = 0;
    std::size_t found = text.find(search);
    while (found != std::string::npos) {
        result.append(text, begin, found - begin).append(replacement);
        begin = found + search.size();
        found = text.find(search, begin);
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
    va_start(arguments, format);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    if (length < 0) return {};
    std::string result(static_cast<std::size_t>(length), '\0');
    va_start(arguments, format);
    (void)std::vsnprintf(result.data(), result.size() + 1, format, arguments);
    va_end(arguments);
    return result;
}

// Not strtod(), which follows the host's locale, and which in small C libraries rounds wrongly.
double toDouble(const char* text, const char** end) {
    const char* number = text + std::strspn(text, whiteSpace);
    const bool negative = *number == '-';
    if (negative || *number == '+') ++number;
    const char* const textEnd = number + std::strlen(number);
    double value = 0.0;
    const char* stop = number;
    if (number[0] == '0' && (number[1] == 'x' || number[1] == 'X')) {
        stop = readNumber(number + 2, textEnd, std::chars_format::hex, value);
        if (stop == number + 2) stop = number;
    }
    if (stop == number) stop = readNumber(number, textEnd, std::chars_format::general, value);
    const bool read = stop != number;
    if (end != nullptr) *end = read ? stop : text;
    return read && negative ? -value : value;
}

}  // namespace korvo::utils
