#include "app/shared_clone.h"

#include <linux/sched.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace ProcMgr::App {
namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PROCMGR_IS_SANITIZED 1
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PROCMGR_IS_SANITIZED 1
#endif

constexpr int FLAGS = CLONE_VM | CLONE_SETTLS | CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID;

uint64_t ToNumber(const void* pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

// The system call clone3, for which the C library has no function. The child begins on a stack of
// its own, so it cannot return from here: it calls `run(argument)`. Returns the pid or -errno. The
// register variables must not be constant: the compiler would put the constant into any register.
long Clone3(const clone_args& arguments, int (*run)(void*), void* argument) {
#if defined(__x86_64__)
    long result = SYS_clone3;
    register auto* function asm("r8") = run;
    register auto* data asm("r9") = argument;
    asm volatile(
        "syscall\n\t"
        "test %%rax, %%rax\n\t"
        "jnz 1f\n\t"
        "xor %%ebp, %%ebp\n\t"
        "mov %%r9, %%rdi\n\t"
        "call *%%r8\n\t"
        "hlt\n"
        "1:"
        : "+a"(result)
        : "D"(&arguments), "S"(sizeof(arguments)), "r"(function), "r"(data)
        : "rcx", "r11", "cc", "memory");
    return result;
#elif defined(__aarch64__)
    register long result asm("x0") = reinterpret_cast<long>(&arguments);
    register size_t size asm("x1") = sizeof(arguments);
    register auto* function asm("x2") = run;
    register auto* data asm("x3") = argument;
    register long call asm("x8") = SYS_clone3;
    asm volatile(
        "svc #0\n\t"
        "cbnz x0, 1f\n\t"
        "mov x29, #0\n\t"
        "mov x0, x3\n\t"
        "blr x2\n\t"
        "brk #0\n"
        "1:"
        : "+r"(result)
        : "r"(size), "r"(function), "r"(data), "r"(call)
        : "cc", "memory");
    return result;
#else
    static_cast<void>(arguments);
    static_cast<void>(run);
    static_cast<void>(argument);
    return -ENOSYS;
#endif
}

}  // namespace

const bool MAY_SHARE_MEMORY =
#if defined(PROCMGR_IS_SANITIZED) || !(defined(__x86_64__) || defined(__aarch64__))
    false;
#else
    true;
#endif

void* GetThreadPointer() {
#if defined(__x86_64__)
    void* pointer = nullptr;
    asm("mov %%fs:0, %0" : "=r"(pointer));
    return pointer;
#elif defined(__aarch64__)
    return __builtin_thread_pointer();
#else
    return nullptr;
#endif
}

pid_t CloneWithoutHandlers(const SharedChild& child) {
    clone_args arguments{};
    arguments.flags = FLAGS | CLONE_CLEAR_SIGHAND;
    arguments.exit_signal = SIGCHLD;
    arguments.stack = ToNumber(child.stack);
    arguments.stack_size = child.stackSize;
    arguments.tls = ToNumber(child.threadPointer);
    arguments.parent_tid = ToNumber(child.word);
    arguments.child_tid = ToNumber(child.word);
    const long result = Clone3(arguments, child.run, child.argument);
    if (result < 0) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return static_cast<pid_t>(result);
}

pid_t CloneWithHandlers(const SharedChild& child) {
    return clone(child.run, static_cast<char*>(child.stack) + child.stackSize, FLAGS | SIGCHLD,
                 child.argument, child.word, child.threadPointer, child.word);
}

}  // namespace ProcMgr::App
