// Fails one chosen allocation of a run, for the fault sweep (sweep.py).
//
// LD_PRELOAD=libfailmalloc.so SYLV_FAIL_AT=i makes the i-th call (from 1)
// of malloc, calloc, realloc, posix_memalign or aligned_alloc return no
// memory (errno ENOMEM); every other call goes to the C library, and
// operator new, which calls malloc, is counted through it. Counting starts
// when main starts: the dynamic loader's and the C runtime's allocations
// before it vary with the environment and are not the program's to handle.
// SYLV_FAIL_COUNT=path writes the number of calls counted at exit or _exit.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* pointer, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

typedef int (*MainFunction)(int, char**, char**);
typedef int (*StartFunction)(MainFunction, int, char**, void (*)(void), void (*)(void),
                             void (*)(void), void*);

static int armed;              // main has started
static unsigned long calls;    // allocations counted since then
static unsigned long fail_at;  // the one to fail, 0 for none
static MainFunction real_main;

// Counts one allocation; true when it is the one to fail.
static int fails_now(void) {
    if (!armed || __atomic_add_fetch(&calls, 1, __ATOMIC_RELAXED) != fail_at) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) {
    return fails_now() ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails_now() ? NULL : __libc_calloc(count, size);
}

// realloc(pointer, 0) frees: not an allocation that can fail.
void* realloc(void* pointer, size_t size) {
    return (pointer == NULL || size != 0) && fails_now() ? NULL : __libc_realloc(pointer, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return fails_now() ? NULL : __libc_memalign(alignment, size);
}

// The alignment is not checked: memalign rounds a bad one up.
int posix_memalign(void** out, size_t alignment, size_t size) {
    void* pointer = fails_now() ? NULL : __libc_memalign(alignment, size);
    if (pointer != NULL) {
        *out = pointer;
    }
    return pointer != NULL ? 0 : ENOMEM;
}

// Writes the count; dprintf formats on the stack, with no allocation.
static void write_count(void) {
    const char* path = getenv("SYLV_FAIL_COUNT");
    int fd = path != NULL ? open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600) : -1;
    if (fd >= 0) {
        dprintf(fd, "%lu\n", calls);
        close(fd);
    }
}

// The tool may end with _exit, which skips atexit: the count is written here too.
void _exit(int status) {
    write_count();
    void (*next)(int);
    *(void**)&next = dlsym(RTLD_NEXT, "_exit");
    next(status);
    __builtin_unreachable();
}

static int counted_main(int argc, char** argv, char** environment) {
    const char* at = getenv("SYLV_FAIL_AT");
    fail_at = at != NULL ? strtoul(at, NULL, 10) : 0;
    atexit(write_count);
    armed = 1;
    return real_main(argc, argv, environment);
}

// The C runtime's entry calls main through here, so the count starts there.
int __libc_start_main(MainFunction main_function, int argc, char** argv, void (*init)(void),
                      void (*fini)(void), void (*rtld_fini)(void), void* stack_end) {
    StartFunction next;
    *(void**)&next = dlsym(RTLD_NEXT, "__libc_start_main");
    real_main = main_function;
    return next(counted_main, argc, argv, init, fini, rtld_fini, stack_end);
}
