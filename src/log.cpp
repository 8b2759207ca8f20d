#include "log.h"

#include <string>

namespace korvo {

// Views, and not inline: some sixty callers would each make and destroy the texts.
bool fail(Failure* failure, const Cause& cause) {
    if (failure == nullptr) return false;
    *failure = {cause.step, cause.error, std::string(cause.subject), cause.line, std::string(cause.reason)};
    return false;
}

}  // namespace korvo
