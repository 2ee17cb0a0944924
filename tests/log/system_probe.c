/* A library for the loader wrappers to load. */
int system_probe_answer(void);
int system_probe_missing(void);
int system_probe_calls_missing(void);

int system_probe_answer(void) {
    return 42;
}

int system_probe_calls_missing(void) {
    return system_probe_missing();
}
