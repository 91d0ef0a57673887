#include <stdio.h>
#include <stdlib.h>

// The object is also a program that prints its version: `.interp` names its interpreter, and the
// link step makes _so_version its entry point.
extern "C" {

extern const char __invoke_dynamic_linker__[] __attribute__((section(".interp"), used)) =
    "/lib64/ld-linux-x86-64.so.2";

// Entered by process start-up, with no return address on the stack: the stack must be realigned
// before anything is called.
__attribute__((force_align_arg_pointer, noreturn)) void _so_version() {
    printf("%s    Quorvel API\nProduced by the Quorvel project\n", "Quorvel_API_V1.1_20141105");
    exit(0);
}
}
