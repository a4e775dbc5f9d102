// An in-process usbfs stand-in: the binary defines ioctl() itself, so the
// library's calls on the stand-in's descriptor reach a handler in the same
// process and every other descriptor still reaches the kernel.
//   ZTUVC_USBFS_STANDIN(kFd, Handle)   once per binary, at namespace scope;
//   Handle(unsigned long request, void* arg) answers like the kernel (-1 + errno).
#pragma once

#include <cstdarg>
#include <sys/syscall.h>
#include <unistd.h>

#define ZTUVC_USBFS_STANDIN(fd_, handle_)                                                          \
    extern "C" int ioctl(int fd, unsigned long request, ...) noexcept                              \
    {                                                                                              \
        va_list ap;                                                                                \
        va_start(ap, request);                                                                     \
        void *arg = va_arg(ap, void *);                                                            \
        va_end(ap);                                                                                \
        if (fd != (fd_))                                                                           \
            return int(syscall(SYS_ioctl, fd, request, arg));                                      \
        return handle_(request, arg);                                                              \
    }
