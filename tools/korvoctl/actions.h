/** @file What korvoctl does, one function for each action; each returns the exit status. */
#pragma once

#include "options.h"
#include "output.h"

namespace korvoctl {

ExitStatus parseAndPrintUri(const Options& options);

}  // namespace korvoctl
