// Platform status codes: 32-bit, 0 is success. The directory glue and the C-side file functions
// return them; NUK_ReturnStatusToString gives their text.
#pragma once

#include <cstdint>

typedef uint32_t NUK_ReturnStatus;

#define NUK_OK 0x0u
#define NUK_FAILURE 0xbad0001u            // generic failure
#define NUK_BUSY 0xbad0002u               // lock held by someone else
#define NUK_NOT_FOUND 0xbad0003u
#define NUK_NO_MEMORY 0xbad0004u
#define NUK_EXISTS 0xbad0005u
#define NUK_BAD_PARAM 0xbad0006u
#define NUK_NO_PERMISSION 0xbad0007u
#define NUK_IO_ERROR 0xbad0008u
#define NUK_TIMEOUT 0xbad0009u
#define NUK_WAIT_FAILED 0xbad0021u
#define NUK_ENTRY_CHANGED 0xbad002fu      // notification: entry changed, look it up again
#define NUK_SUBSCRIPTION_ENDED 0xbad0030u // notification: the subscription has ended
#define NUK_PENDING 0xbad0031u            // completion not yet reported
#define NUK_DIRECTORY_NOT_RUNNING 0xbad012bu

// Text of a status; never null.
const char* NUK_ReturnStatusToString(NUK_ReturnStatus status);

// The status that stands for an errno value (ENOENT -> NUK_NOT_FOUND, EAGAIN/EACCES -> NUK_BUSY,
// EEXIST -> NUK_EXISTS, ...). This is the one place where errno becomes a status.
NUK_ReturnStatus NUK_StatusFromErrno(int err);
