/**
 * @file
 * Tables of cases: lines `input => expected` with C escapes; blank ones and # comments apart. A line indented
 * by four blanks continues the case before: on a new line, or as the expectation if only that is missing.
 */
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
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

/** Pairs of input and expectation. While a loop is at one, every failure names its file, line and input. */
class Cases : public std::vector<std::pair<std::string, std::string>> {
  public:
    struct Iterator {
        const Cases& cases;
        std::size_t index;
        std::optional<testing::ScopedTrace> trace;

        bool operator!=(const Iterator& end) const { return index != end.index; }
        void operator++() { ++index; }
        const auto& operator*() {
            const int line = index < cases.lines.size() ? cases.lines[index] : 0;  // 0: the test added it
            trace.emplace(cases.file.c_str(), line, cases[index].first);
            return cases[index];
        }
    };

    explicit Cases(const std::string& name) : file(TEST_DATA "/" + name) {
        std::vector<std::string> rows;
        std::ifstream input(file);
        int number = 1;
        for (std::string line; std::getline(input, line); ++number) {
            if (line.empty() || line[0] == '#') continue;
            if (line.compare(0, 4, "    ") != 0) {
                rows.push_back(line);
                lines.push_back(number);
            } else {
                std::string& row = rows.at(rows.size() - 1);
                row += (row.rfind(" =>") + 3 == row.size() ? ' ' : '\n') + line.substr(4);
            }
        }
        for (const std::string& row : rows) {
            const std::size_t arrow = row.find(" => ");
            if (arrow == std::string::npos) throw std::runtime_error("no case: " + row);
            emplace_back(unescaped(row.substr(0, arrow)), unescaped(row.substr(arrow + 4)));
        }
        if (empty()) throw std::runtime_error("no cases in " + name);
    }
    Iterator begin() const { return {*this, 0, {}}; }
    Iterator end() const { return {*this, size(), {}}; }

  private:
    const std::string file;
    std::vector<int> lines;
};

/** The cases of tests/data/NAME, of which there must be some. */
inline Cases readCases(const std::string& name) { return Cases(name); }

/** The fields of an input or an expectation, which "|" separates. */
inline std::vector<std::string> fields(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t begin = 0; begin <= text.size(); begin += result.back().size() + 1)
        result.push_back(text.substr(begin, text.find('|', begin) - begin));
    return result;
}

}  // namespace test
