/** @file Tells the user for which process a command waits. */
#pragma once

#include "korvo/utils/device_root.h"

namespace korvoctl {

/**
 * Gives the holder of a lock a second to release it, then tells the user for whom the command waits. Call it
 * right before what takes the lock; it takes nothing itself.
 * @param name   the lock
 * @param until  what its holder is to do, as in "waiting for process 7 to close the configuration"
 */
void announceWait(const char* name = korvo::utils::configurationLock,
                  const char* until = "close the configuration");

}  // namespace korvoctl
