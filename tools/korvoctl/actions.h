/** @file What korvoctl does, one function for each action; each returns the exit status. */
#pragma once

#include "options.h"
#include "output.h"

namespace korvoctl {

ExitStatus parseAndPrintUri(const Options& options);
ExitStatus printConfigurationValue(const Options& options);
ExitStatus setConfigurationValue(const Options& options);
ExitStatus printConfiguration(const Options& options);
ExitStatus printDeviceInformation(const Options& options);

}  // namespace korvoctl
