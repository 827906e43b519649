/* A small shared library for the loader tests. */

/* An exported absolute symbol whose value is zero: the loader finds it, and
   its address is null. */
__asm__(".globl kr7_null_symbol\n.set kr7_null_symbol, 0\n");

int kr7_answer(void) {
    return 42;
}

int kr7_data = 7;
