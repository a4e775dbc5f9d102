/*
 * The trace facility's process-wide context, shared by its configuration
 * reader and its record writer.
 */
#ifndef ZTUVC_DTRACES_INT_H
#define ZTUVC_DTRACES_INT_H

#include <cstdint>
#include <pthread.h>

#include "dtraces.h"

constexpr unsigned DTRACE_PATH_SIZE = 4096;
constexpr unsigned DTRACE_MESSAGE_SIZE = 2048;
/* Text of one record before its newline; leaves room for "\n" and NUL. */
constexpr int DTRACE_MESSAGE_MAX = DTRACE_MESSAGE_SIZE - 2;

struct DTRACE_CONTEXT {
    pthread_mutex_t aLock;
    uint32_t dwTimeBase;
    char szModuleName[DTRACE_PATH_SIZE];
    char szMessage[DTRACE_MESSAGE_SIZE];
    int32_t iMessageLength;
    uint32_t bForced;
    uint8_t bForcedLevel;
    char szTarget[DTRACE_PATH_SIZE];
    char szRegionConfigFile[DTRACE_PATH_SIZE];
};

extern DTRACE_CONTEXT gDContext;

/* Level letters of configuration files and records: n e w d t l. */
extern const char gLevels[];

/* One-time initialisation from the environment and configuration files. */
void Init(void);

/* Starts a record with the trace lock held: header, indentation, prefix. */
void DTraceStartRecord(const char *pszRegionName, uint8_t nLevel, const char *pszFile, int iLine,
                       const char *pszPrefix);

#endif
