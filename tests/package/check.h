/* Checks for test programs in C: the first that fails ends the program with status 1. */
#ifndef QZFI_TESTS_CHECK_H
#define QZFI_TESTS_CHECK_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                                  \
            exit(1);                                                                                                   \
        }                                                                                                              \
    } while (0)

#define CHECK_TEXT(actual, expected)                                                                                   \
    do {                                                                                                               \
        if (strcmp((actual), (expected)) != 0) {                                                                       \
            fprintf(stderr, "%s:%d: \"%s\" is not \"%s\"\n", __FILE__, __LINE__, (actual), (expected));                \
            exit(1);                                                                                                   \
        }                                                                                                              \
    } while (0)

#endif
