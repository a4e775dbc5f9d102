/*
 * Scope holders for the file descriptors and directories the transport
 * opens in sysfs and usbfs: closed on every way out.
 */
#ifndef ZTUVC_USBTR_HOLDERS_H
#define ZTUVC_USBTR_HOLDERS_H

#include <dirent.h>
#include <unistd.h>

struct FdHolder {
    int fd;
    explicit FdHolder(int fdOpen) : fd(fdOpen) {}
    ~FdHolder()
    {
        if (fd >= 0)
            close(fd);
    }
    FdHolder(const FdHolder &) = delete;
    FdHolder &operator=(const FdHolder &) = delete;
};

struct DirHolder {
    DIR *pDir;
    explicit DirHolder(const char *pszPath) : pDir(opendir(pszPath)) {}
    ~DirHolder()
    {
        if (pDir != nullptr)
            closedir(pDir);
    }
    DirHolder(const DirHolder &) = delete;
    DirHolder &operator=(const DirHolder &) = delete;
};

#endif
