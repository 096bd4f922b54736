// SPDX-License-Identifier: Apache-2.0
//
// Linked into each library and program of a coverage build: tells libcounters.so of this one's counters.
void __gcov_dump(void);
void __gcov_reset(void);
void countersRegister(void (*write)(void), void (*reset)(void));
void countersUnregister(void (*write)(void));

__attribute__((constructor)) static void begin(void)
{
    countersRegister(&__gcov_dump, &__gcov_reset);
}

__attribute__((destructor)) static void end(void)
{
    countersUnregister(&__gcov_dump);
}
