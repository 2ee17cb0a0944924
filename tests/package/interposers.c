/*
 * Defines a function for every name in the list that the build makes of the linker map: INTERPOSE(name) rows. Each
 * counts its calls and answers nonsense.
 */
#include <stdint.h>

#include "interposers.h"

#define INTERPOSE(name)                                                                                                \
    static int calls_of_##name;                                                                                        \
    uintptr_t name(void);                                                                                              \
    uintptr_t name(void) {                                                                                             \
        calls_of_##name++;                                                                                             \
        return 0x5a;                                                                                                   \
    }
#include "interposed_names.def"
#undef INTERPOSE

#define INTERPOSE(name) {#name, (void *)(uintptr_t)name, &calls_of_##name},
const struct interposer interposers[] = {
#include "interposed_names.def"
};
#undef INTERPOSE

const int interposer_count = sizeof interposers / sizeof interposers[0];

int interposed_calls(void) {
    int sum = 0;
    for (int i = 0; i < interposer_count; i++)
        sum += *interposers[i].calls;
    return sum;
}
