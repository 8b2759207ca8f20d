/** @file korvoctl's command line: one command, its operands, and options between them up to a "--". */
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "korvo/variant/variant.h"

namespace korvoctl {

struct Command;

/** The parsed and checked command line. */
class Arguments {
  public:
    /** Parses and checks. Prints what is wrong to standard error; then ok() is false. */
    Arguments(int argc, char** argv);

    [[nodiscard]] bool ok() const { return valid; }

    /** The command to perform; null for --help or --version alone. */
    const Command* command() const { return chosen; }

    /** The words after the command that are not options. */
    const std::vector<std::string>& operands() const { return words; }

    /** The first operand; empty when there is none. */
    std::string operand() const { return words.empty() ? std::string() : words.front(); }

    /** Whether an option was given, by its long name. */
    bool has(const char* option) const { return given.count(option) != 0; }

    /** The value of an option, exactly as typed; empty when it was not given. */
    std::string text(const char* option) const;

  private:
    [[nodiscard]] bool parse(int argc, char** argv, std::vector<std::string>& rest);
    [[nodiscard]] bool check(const std::vector<std::string>& rest);
    [[nodiscard]] bool checkOptions();
    [[nodiscard]] bool checkOperands();

    std::map<std::string, std::string> given;  ///< the options and their values as typed
    std::vector<std::string> words;
    const Command* chosen = nullptr;
    bool valid = false;
};

/** Declares the options that a command accepts, for its help. */
void describeOptions(const Command& command, korvo::variant::Variant& definitions);

}  // namespace korvoctl
