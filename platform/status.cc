#include "platform/status.h"

#include <cerrno>

const char* NUK_ReturnStatusToString(NUK_ReturnStatus status) {
  switch (status) {
    case NUK_OK: return "Success";
    case NUK_FAILURE: return "Failure";
    case NUK_BUSY: return "Resource is busy";
    case NUK_NOT_FOUND: return "Not found";
    case NUK_NO_MEMORY: return "Out of memory";
    case NUK_EXISTS: return "Already exists";
    case NUK_BAD_PARAM: return "Bad parameter";
    case NUK_NO_PERMISSION: return "Permission denied";
    case NUK_IO_ERROR: return "I/O error";
    case NUK_TIMEOUT: return "Timeout";
    case NUK_WAIT_FAILED: return "Wait failed";
    case NUK_ENTRY_CHANGED: return "Entry changed";
    case NUK_SUBSCRIPTION_ENDED: return "Subscription ended";
    case NUK_PENDING: return "Pending";
    case NUK_DIRECTORY_NOT_RUNNING: return "Directory service is not running";
    default: return "Unknown status";
  }
}

NUK_ReturnStatus NUK_StatusFromErrno(int err) {
  switch (err) {
    case 0: return NUK_OK;
    case ENOENT: return NUK_NOT_FOUND;
    case EAGAIN: return NUK_BUSY;
    case EACCES: return NUK_BUSY;
    case EEXIST: return NUK_EXISTS;
    case ENOMEM: return NUK_NO_MEMORY;
    case EINVAL: return NUK_BAD_PARAM;
    case EPERM: return NUK_NO_PERMISSION;
    case EIO: return NUK_IO_ERROR;
    case ETIMEDOUT: return NUK_TIMEOUT;
    default: return NUK_FAILURE;
  }
}
