#include <qzfi/messages.h>

namespace {

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

/// Reads the one to three digits at `source` as a decimal number, as the catalogs write them, and steps past them.
char take_code(const char *&source) {
    int code = 0;
    for (int count = 0; count < 3 && is_digit(*source); ++count)
        code = code * 10 + (*source++ - '0');
    return static_cast<char>(static_cast<unsigned char>(code));
}

/// The character that a letter after a backslash stands for, or 0 for none.
char control_character(char letter) {
    switch (letter) {
    case '\\':
        return '\\';
    case 'a':
        return '\a';
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'v':
        return '\v';
    default:
        return '\0';
    }
}

} // namespace

void expandfmt(char *text) {
    if (text == nullptr)
        return;
    const char *source = text;
    char *destination = text;
    while (*source != '\0') {
        if (*source != '\\') {
            *destination++ = *source++;
            continue;
        }
        ++source;
        if (is_digit(*source)) {
            *destination++ = take_code(source);
            continue;
        }
        if (*source == '\0') // a lone backslash ends the text
            break;
        const char control = control_character(*source++);
        if (control != '\0')
            *destination++ = control;
    }
    *destination = '\0';
}
