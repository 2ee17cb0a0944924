// What a host's handler was given, to be compared and printed.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

struct Report {
    std::string text;
    std::string localized; // "(null)" for none
    uint32_t severity;

    bool operator==(const Report &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Report &report) {
    return out << report.severity << " [" << report.text << "] [" << report.localized << "]";
}

/// A report of a handler's arguments.
inline Report report_of(const char *text, const char *localized, uint32_t severity) {
    return {text, localized != nullptr ? localized : "(null)", severity};
}
