// The process's locale, for as long as one of these lives.
#pragma once

#include <clocale>
#include <string>

#include <gtest/gtest.h>

class Locale {
public:
    explicit Locale(const char *name) : before_(std::setlocale(LC_ALL, nullptr)) {
        EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << name;
    }
    ~Locale() { std::setlocale(LC_ALL, before_.c_str()); }
    Locale(const Locale &) = delete;
    Locale &operator=(const Locale &) = delete;

private:
    std::string before_;
};
