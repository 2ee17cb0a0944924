#pragma once

namespace qzfi::fi {

/// Throws status 4 with the operation, the provider in charge or "file systems", and the object that `node` stands for.
[[noreturn]] void fail_unsupported(const char *operation, void *node);

} // namespace qzfi::fi
