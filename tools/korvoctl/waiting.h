/** @file Reports which process a command waits for. */
#pragma once

#include "korvo/utils/device_root.h"

namespace korvoctl {

/**
 * Gives the holder of a lock a second to release it, then prints whom the command waits for. Call it right
 * before the call that takes the lock; it takes none itself.
 * @param name   the lock
 * @param until  what the holder should do, as in "waiting for process 7 to close the configuration"
 */
void announceWait(const char* name = korvo::utils::configurationLock,
                  const char* until = "close the configuration");

}  // namespace korvoctl
