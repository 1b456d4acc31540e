// Host stand-in for the device's <utils/Errors.h>: status codes as on a device.
#pragma once

#include <cerrno>
#include <cstdint>

namespace android {

typedef int32_t status_t;

enum {
    OK = 0,
    NO_ERROR = OK,

    UNKNOWN_ERROR = INT32_MIN,

    NO_MEMORY = -ENOMEM,
    INVALID_OPERATION = -ENOSYS,
    BAD_VALUE = -EINVAL,
    BAD_TYPE = UNKNOWN_ERROR + 1,
    NAME_NOT_FOUND = -ENOENT,
    PERMISSION_DENIED = -EPERM,
    NO_INIT = -ENODEV,
    ALREADY_EXISTS = -EEXIST,
    DEAD_OBJECT = -EPIPE,
    FAILED_TRANSACTION = UNKNOWN_ERROR + 2,
    BAD_INDEX = -EOVERFLOW,
    NOT_ENOUGH_DATA = -ENODATA,
    WOULD_BLOCK = -EWOULDBLOCK,
    TIMED_OUT = -ETIMEDOUT,
    UNKNOWN_TRANSACTION = -EBADMSG,
    UNEXPECTED_NULL = UNKNOWN_ERROR + 8,
};

}  // namespace android
