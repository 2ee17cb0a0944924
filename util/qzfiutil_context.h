// The context record, and what the host and the context process share of it.
#pragma once

#include <cstdint>

#include <qzfi/context.h>

#pragma GCC visibility push(hidden)

extern "C" {

extern int32_t sig_pid;         // context process: the command just forked, then what reaping it gave
extern int32_t sig_chld_status; // context process: the wait status that the SIGCHLD handler collected

/// The context process: serves commands until the host stops it or is gone. Never returns.
[[noreturn]] void qzfi_child_process(int32_t *record);

/// Moves the output and error pipes onto descriptors 1 and 2 and closes all but what the context process needs.
void qzfi_closeall(int32_t *record);

/// Lists the open descriptors of this process; the caller frees the list. Returns 0, or 1 when they cannot be listed.
uint32_t qzfi_get_open_fd_list(int32_t **list, int32_t *count);

void qzfi_sigio_handler(int signal);
void qzfi_sigchld_handler(int signal);
}

namespace qzfi {

/// The process id of the host, for its context process to know when it is gone; set before the fork.
extern int32_t context_host;

/// True when `handle` names the context of this process.
bool is_context(const void *handle) noexcept;

/// Reaps context processes that were closed but had not ended then. Never waits.
void reap_closed_contexts() noexcept;

} // namespace qzfi

#pragma GCC visibility pop
