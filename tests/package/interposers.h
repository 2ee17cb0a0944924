/* The host's own functions under the library's names. */
#ifndef QZFI_TESTS_INTERPOSERS_H
#define QZFI_TESTS_INTERPOSERS_H

struct interposer {
    const char *name;
    void *function;
    const int *calls;
};

extern const struct interposer interposers[];
extern const int interposer_count;
int interposed_calls(void);

#endif
