/** @file What may stand on korvoctl's command line. */
#pragma once

#include <string>

#include "korvo/variant/variant.h"

namespace korvoctl {

/** The parsed and checked command line. */
class Options {
  public:
    /**
     * Parses the command line. What is wrong with it is told on standard error; ok() is then false.
     */
    Options(int argc, const char** argv);

    bool ok() const { return valid; }

    /** The long name of the one option that says what to do, such as "uri". */
    const std::string& action() const { return chosenAction; }

    /** Whether an option was given, and not switched off as in --resolve=0. */
    bool has(const char* longName) const;

    /** The value of an option that takes a text, exactly as typed. */
    const std::string& text(const char* longName) const;

    /** Prints the help text to standard output. */
    void printHelp();

  private:
    bool check();
    bool checkOption(const std::string& name, const korvo::variant::Variant& value);
    void collectTexts(int argc, const char** argv);

    korvo::variant::Variant definitions;
    korvo::variant::Variant parsed;
    korvo::variant::Variant texts;
    std::string chosenAction;
    bool valid = false;
};

}  // namespace korvoctl
