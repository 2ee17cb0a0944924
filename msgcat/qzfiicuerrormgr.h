// The bridge from message ids to localised texts.
#pragma once

#include <cstdarg>

extern "C" {

/// Gives the text of a message in a locale, formatted with the arguments unless `raw`; null when no catalog has it.
/// The caller releases the text with `free`.
char *fi_get_icuMsg(const char *message_id, const char *locale, va_list arguments, int raw);
}
