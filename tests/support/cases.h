/**
 * @file
 * Tables of cases: lines `input => expected` with C escapes; blank ones and # comments apart. A line indented
 * by four blanks goes on with the case before: on a new line, or as the expectation where only that lacks.
 */
#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace test {

inline std::string unescaped(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char code = text[i] == '\\' ? text[++i] : '\0';
        result += code == 'n' ? '\n' : code == 'r' ? '\r' : code == 't' ? '\t' : text[i];
        if (code != 'x') continue;
        result.back() = static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return result;
}

/** The cases of tests/data/NAME, of which there must be some, so that no test runs empty. */
inline std::vector<std::pair<std::string, std::string>> readCases(const std::string& name) {
    std::vector<std::string> rows;
    std::ifstream file(TEST_DATA "/" + name);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (line.compare(0, 4, "    ") != 0) {
            rows.push_back(line);
        } else {
            std::string& row = rows.at(rows.size() - 1);
            const bool endsWithArrow = row.size() > 3 && row.compare(row.size() - 3, 3, " =>") == 0;
            row += (endsWithArrow ? ' ' : '\n') + line.substr(4);
        }
    }
    std::vector<std::pair<std::string, std::string>> cases;
    for (const std::string& row : rows) {
        const std::size_t arrow = row.find(" => ");
        if (arrow == std::string::npos) throw std::runtime_error("no case: " + row);
        cases.emplace_back(unescaped(row.substr(0, arrow)), unescaped(row.substr(arrow + 4)));
    }
    if (cases.empty()) throw std::runtime_error("no cases in " + name);
    return cases;
}

/** The fields of an input or an expectation, which "|" separates. */
inline std::vector<std::string> fields(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t begin = 0; begin <= text.size(); begin += result.back().size() + 1)
        result.push_back(text.substr(begin, text.find('|', begin) - begin));
    return result;
}

}  // namespace test
