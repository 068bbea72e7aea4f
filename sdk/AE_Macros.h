// Error-chaining and clearing helpers used by plug-in code.
#pragma once

#include <string.h>

// Evaluates FUNC only while no error is held; its result becomes the held error.
#define ERR(FUNC)            \
    do {                     \
        if (!err) {          \
            err = (FUNC);    \
        }                    \
    } while (0)

// Always evaluates FUNC into err2; the result is kept in err only when err is still clear.
#define ERR2(FUNC)                                  \
    do {                                            \
        if (((err2 = (FUNC)) != A_Err_NONE) && !err) \
            err = err2;                             \
    } while (0)

#define AEFX_CLR_STRUCT(STRUCT) memset(&(STRUCT), 0, sizeof(STRUCT))
